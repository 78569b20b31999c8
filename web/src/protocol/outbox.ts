import type { ClientMessage } from "./messages.ts";

export interface OutboxLimits {
    requestsPerSecond: number;
    messageBytes: number;
}

/**
 * Requests on their way out. They leave in order, as many in one WebSocket message as fit, and never faster than the
 * server allows: a page of a hundred panels asks for all of them at once.
 */
export class Outbox {
    #queue: ClientMessage[] = [];
    #allowance: number;
    #refilledAt: number;

    constructor(
        readonly limits: OutboxLimits,
        nowMs: number,
    ) {
        this.#allowance = limits.requestsPerSecond;
        this.#refilledAt = nowMs;
    }

    get waiting(): number {
        return this.#queue.length;
    }

    push(message: ClientMessage): void {
        this.#queue.push(message);
    }

    /** Takes back what has not left yet. False: it has. */
    cancel(request: string): boolean {
        const index = this.#queue.findIndex((message) => "request" in message && message.request === request);
        if (index < 0) return false;
        this.#queue.splice(index, 1);
        return true;
    }

    /** What may leave now, each text a WebSocket message of its own. */
    take(nowMs: number): string[] {
        this.#refill(nowMs);
        const texts: string[] = [];
        let text = "";
        while (this.#queue.length > 0 && this.#allowance >= 1) {
            const line = JSON.stringify(this.#queue.shift());
            this.#allowance -= 1;
            // Four bytes for each character are the worst of UTF-8.
            if (text !== "" && (text.length + line.length + 1) * 4 > this.limits.messageBytes) {
                texts.push(text);
                text = "";
            }
            text = text === "" ? line : `${text}\n${line}`;
        }
        if (text !== "") texts.push(text);
        return texts;
    }

    /** Milliseconds until something may leave; null if nothing waits. */
    delay(): number | null {
        if (this.#queue.length === 0) return null;
        return this.#allowance >= 1 ? 0 : Math.ceil(((1 - this.#allowance) * 1000) / this.limits.requestsPerSecond);
    }

    #refill(nowMs: number): void {
        const gained = ((nowMs - this.#refilledAt) * this.limits.requestsPerSecond) / 1000;
        this.#allowance = Math.min(this.limits.requestsPerSecond, this.#allowance + gained);
        this.#refilledAt = nowMs;
    }
}
