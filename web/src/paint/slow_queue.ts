import type { Clock } from "../protocol/clock.ts";

/**
 * Work that may wait, such as what is read out and not seen: each item at most once in `periodMs`, and one item at a
 * time with `pauseMs` between two of them, so that no frame suffers from many.
 */
export class SlowQueue<T extends object> {
    #waiting = new Set<T>();
    #doneMs = new WeakMap<T, number>();
    #lastMs = -Infinity;
    #wakeMs = Infinity;
    #cancel: (() => void) | null = null;

    constructor(
        private readonly clock: Clock,
        private readonly work: (item: T) => void,
        private readonly periodMs = 1000,
        private readonly pauseMs = 40,
    ) {}

    /** The item has changed. One that has rested long enough is served at once, if the last one was long enough ago. */
    add(item: T): void {
        if (this.#waiting.has(item)) return;
        this.#waiting.add(item);
        this.#go();
    }

    forget(item: T): void {
        this.#waiting.delete(item);
    }

    #dueMs(item: T): number {
        return Math.max(this.#lastMs + this.pauseMs, (this.#doneMs.get(item) ?? -Infinity) + this.periodMs);
    }

    /** Serves who is due, if anybody is, and comes back for the next. */
    #go(): void {
        const nowMs = this.clock.now();
        let soonestMs = Infinity;
        for (const item of this.#waiting) {
            const dueMs = this.#dueMs(item);
            if (dueMs <= nowMs) return this.#serve(item, nowMs);
            soonestMs = Math.min(soonestMs, dueMs);
        }
        if (soonestMs >= this.#wakeMs) return;
        this.#cancel?.();
        this.#wakeMs = soonestMs;
        this.#cancel = this.clock.after(soonestMs - nowMs, () => {
            this.#wakeMs = Infinity;
            this.#cancel = null;
            this.#go();
        });
    }

    #serve(item: T, nowMs: number): void {
        this.#waiting.delete(item);
        this.#doneMs.set(item, nowMs);
        this.#lastMs = nowMs;
        this.work(item);
        this.#go();
    }
}
