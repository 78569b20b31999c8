import type { Subscription } from "./subscription.ts";

export interface Pending {
    kind: "subscribe" | "change" | "unsubscribe";
    subscription: Subscription;
}

/** Which request was about what: answers only repeat its name, and may come more than once. */
export class RequestLog {
    #pending = new Map<string, Pending>();

    add(request: string, pending: Pending): void {
        this.#pending.set(request, pending);
        if (this.#pending.size > 5000) this.#forgetOldest();
    }

    get(request: string): Pending | undefined {
        return this.#pending.get(request);
    }

    forget(subscription: Subscription): void {
        for (const [request, pending] of this.#pending) {
            if (pending.subscription === subscription) this.#pending.delete(request);
        }
    }

    clear(): void {
        this.#pending.clear();
    }

    #forgetOldest(): void {
        for (const [request, pending] of this.#pending) {
            if (pending.kind === "subscribe") continue;
            this.#pending.delete(request);
            return;
        }
    }
}
