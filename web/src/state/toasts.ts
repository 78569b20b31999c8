import { Store } from "./store.ts";

export interface Toast {
    id: number;
    what: string;
    where: string;
    count: number;
}

const shownMs = 12_000;
const mostShown = 4;

/** Messages that say what went wrong, and where. The same one again only counts. */
export class Toasts {
    readonly store = new Store<readonly Toast[]>([]);
    #lastId = 0;

    show(what: string, where: string): void {
        const known = this.store.value.find((toast) => toast.what === what && toast.where === where);
        if (known !== undefined) {
            this.store.set(this.store.value.map((toast) => (toast === known ? { ...toast, count: toast.count + 1 } : toast)));
            return;
        }
        this.#lastId += 1;
        const id = this.#lastId;
        this.store.set([...this.store.value, { id, what, where, count: 1 }].slice(-mostShown));
        setTimeout(() => this.dismiss(id), shownMs);
    }

    dismiss(id: number): void {
        this.store.set(this.store.value.filter((toast) => toast.id !== id));
    }
}
