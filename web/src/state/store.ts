import { useEffect, useState } from "preact/hooks";

/** A value that can be watched. */
export class Store<T> {
    #listeners = new Set<() => void>();

    constructor(private current: T) {}

    get value(): T {
        return this.current;
    }

    set(value: T): void {
        if (value === this.current) return;
        this.current = value;
        for (const listener of [...this.#listeners]) listener();
    }

    update(change: Partial<T>): void {
        this.set({ ...this.current, ...change });
    }

    watch(listener: () => void): () => void {
        this.#listeners.add(listener);
        return () => this.#listeners.delete(listener);
    }
}

/** The component is drawn again whenever the store's value changes. */
export function useStore<T>(store: Store<T>): T {
    const [, redraw] = useState(0);
    useEffect(() => store.watch(() => redraw((count) => count + 1)), [store]);
    return store.value;
}
