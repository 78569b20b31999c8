import type { Image, Level, ServerMessage, Update } from "../../src/protocol/messages.ts";
import type { Clock } from "../../src/protocol/clock.ts";

export const instrument = "USDM:BTCUSDT";

export function level(price: string, direct: string, implied = "0", orders: number | null = null): Level {
    return [price, direct, implied, orders];
}

export function image(change: Partial<Image> = {}): Image {
    return {
        type: "image",
        instrument,
        depth: 5,
        epoch: 1,
        sequence: 10,
        exchange_time_ns: "1",
        receive_time_ns: "2",
        bids: [level("99", "1"), level("98", "2")],
        asks: [level("101", "1"), level("102", "2")],
        missing: [],
        stale: [],
        ...change,
    };
}

export function update(change: Partial<Update> = {}): Update {
    return {
        type: "update",
        instrument,
        depth: 5,
        epoch: 1,
        previous: 10,
        sequence: 11,
        exchange_time_ns: "1",
        receive_time_ns: "2",
        bids: [],
        asks: [],
        ...change,
    };
}

export function hello(change: object = {}): ServerMessage {
    return {
        type: "hello",
        protocol: 1,
        server: "test",
        version: "1",
        build: "1",
        session: 1,
        time_ns: "1",
        authenticated: true,
        rights: { markets: ["*"], operations: true },
        limits: { message_bytes: 65536, subscriptions: 200, requests_per_second: 100, depth: 1000 },
        ...change,
    };
}

/** Time that moves by hand. */
export class HandClock implements Clock {
    #nowMs = 0;
    #timers: { dueMs: number; action: () => void }[] = [];

    now(): number {
        return this.#nowMs;
    }

    after(ms: number, action: () => void): () => void {
        const timer = { dueMs: this.#nowMs + ms, action };
        this.#timers.push(timer);
        return () => void (this.#timers = this.#timers.filter((one) => one !== timer));
    }

    advance(ms: number): void {
        const endMs = this.#nowMs + ms;
        for (;;) {
            const due = this.#timers.filter((one) => one.dueMs <= endMs).sort((a, b) => a.dueMs - b.dueMs)[0];
            if (due === undefined) break;
            this.#timers = this.#timers.filter((one) => one !== due);
            this.#nowMs = Math.max(this.#nowMs, due.dueMs);
            due.action();
        }
        this.#nowMs = endMs;
    }
}
