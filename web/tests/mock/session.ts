// One session of the mock server: the protocol of docs/protocol.md as far as the page meets it.
import type { WebSocket } from "ws";
import type { Component, Kind, Level } from "../../src/protocol/messages.ts";
import type { Instrument, MovingBook } from "./market.ts";

export const limits = {
    message_bytes: 65536,
    subscriptions: 200,
    requests_per_second: 100,
    depth: 1000,
    conflate_bytes: 262144,
    close_bytes: 1048576,
    stall_ms: 10000,
    idle_ms: 60000,
};

export interface Sub {
    id: string;
    instrument: string;
    book: MovingBook;
    depth: number;
    intervalMs: number;
    kinds: Kind[];
    sent: { bids: Level[]; asks: Level[]; sequence: number } | null;
    dueMs: number;
}

export interface World {
    find(instrument: string): { instrument: Instrument; book: MovingBook } | undefined;
    near(instrument: string): string[];
    token: string | null;
}

interface Request {
    type: string;
    request?: string;
    instrument?: string;
    subscription?: string;
    depth?: number | string;
    interval_ms?: number;
    kinds?: Kind[];
    image?: boolean;
    token?: string;
}

export class Session {
    readonly subs = new Map<string, Sub>();
    updates = 0;
    #authenticated: boolean;
    #lines: string[] = [];

    constructor(
        readonly id: number,
        private readonly socket: WebSocket,
        private readonly world: World,
    ) {
        this.#authenticated = world.token === null;
        this.#say({
            type: "hello",
            protocol: 1,
            server: "mock_server",
            version: "0.1.0",
            build: "mock",
            session: id,
            time_ns: `${Date.now()}000000`,
            authenticated: this.#authenticated,
            rights: { markets: ["*"], operations: true },
            limits,
        });
        socket.on("message", (data) => {
            for (const line of String(data).split("\n")) this.#receive(line);
            this.flush();
        });
        this.flush();
    }

    /** The book of an instrument has changed. */
    bookChanged(book: MovingBook, nowMs: number): void {
        for (const sub of this.subs.values()) {
            if (sub.book === book && sub.dueMs <= nowMs && sub.kinds.includes("book")) this.#update(sub, nowMs);
        }
    }

    traded(book: MovingBook): void {
        const sub = [...this.subs.values()].find((one) => one.book === book && one.kinds.includes("trades"));
        if (sub !== undefined) this.#say({ type: "trades", instrument: sub.instrument, trades: [book.trade()] });
    }

    flush(): void {
        if (this.#lines.length === 0 || this.socket.readyState !== 1) return;
        this.socket.send(this.#lines.join("\n"));
        this.#lines = [];
    }

    #say(message: object): void {
        this.#lines.push(JSON.stringify(message));
    }

    #error(request: string | null, code: string, where: string, message: string): void {
        this.#say({ type: "error", request, code, where, message });
    }

    #receive(line: string): void {
        let message: Request;
        try {
            message = JSON.parse(line) as Request;
        } catch {
            return this.#error(null, "bad_json", "", "this is not JSON");
        }
        const request = message.request ?? "";
        if (message.type === "authenticate") return this.#authenticate(message.token);
        if (!this.#authenticated) return this.#error(request, "unauthenticated", "", "a token comes first");
        if (message.type === "ping") return this.#say({ type: "pong", request, time_ns: `${Date.now()}000000` });
        if (message.type === "subscribe") return this.#subscribe(request, message);
        const sub = this.subs.get(message.subscription ?? "");
        if (sub === undefined) {
            return this.#error(request, "unknown_subscription", "subscription", `there is no subscription "${message.subscription}"`);
        }
        if (message.type === "unsubscribe") {
            this.subs.delete(sub.id);
            return this.#accepted(request, sub);
        }
        return this.#change(request, sub, message);
    }

    #authenticate(token: string | undefined): void {
        if (token !== this.world.token) return this.socket.close(1008);
        this.#authenticated = true;
        this.#say({ type: "authenticated", rights: { markets: ["*"], operations: true } });
    }

    #subscribe(request: string, message: Request): void {
        const instrument = message.instrument ?? "";
        const found = this.world.find(instrument);
        if (found === undefined) {
            const near = this.world.near(instrument).join(", ");
            return this.#error(request, "unknown_instrument", "instrument", `nobody knows "${instrument}"; near: ${near}`);
        }
        const depth = readDepth(message.depth ?? "default");
        if (depth === null) return this.#badDepth(request, message.depth);
        if ([...this.subs.values()].some((one) => one.instrument === instrument && one.depth === depth)) {
            return this.#error(request, "duplicate_subscription", "depth", `${instrument} at depth ${depth} is subscribed`);
        }
        const { message_bytes: _unused, ...rest } = limits;
        if (this.subs.size >= rest.subscriptions) return this.#error(request, "too_many_subscriptions", "", "200 are enough");
        const { book } = found;
        const intervalMs = message.interval_ms ?? 0;
        const sub: Sub = { id: request, instrument, book, depth, intervalMs, kinds: message.kinds ?? ["book"], sent: null, dueMs: 0 };
        this.subs.set(request, sub);
        this.#accepted(request, sub);
        const { fraction, hasImplied } = found.instrument;
        const format = { denominator: 10 ** fraction, fraction_digits: fraction, tick_size: 1 };
        const components: Component[] = hasImplied ? ["direct", "implied"] : ["direct"];
        for (const component of components) {
            this.#say({
                type: "result",
                request,
                code: 0,
                name: "Success",
                meaning: "the component is subscribed",
                component,
                format,
            });
        }
        if (sub.kinds.includes("fields")) this.#fields(sub);
        if (sub.kinds.includes("book")) this.#image(sub);
    }

    #change(request: string, sub: Sub, message: Request): void {
        const depth = message.depth === undefined ? sub.depth : readDepth(message.depth);
        if (depth === null) return this.#badDepth(request, message.depth);
        const wantsImage = message.image === true || depth !== sub.depth;
        sub.depth = depth;
        sub.intervalMs = message.interval_ms ?? sub.intervalMs;
        sub.kinds = message.kinds ?? sub.kinds;
        this.#accepted(request, sub);
        if (sub.kinds.includes("fields")) this.#fields(sub);
        if (wantsImage || (sub.sent === null && sub.kinds.includes("book"))) this.#image(sub);
    }

    #badDepth(request: string, depth: unknown): void {
        this.#error(request, "bad_value", "depth", `"depth" is ${String(depth)}: a whole number from 1 to ${limits.depth}, "default" or "max" expected`);
    }

    #accepted(request: string, sub: Sub): void {
        const meaning = "the request is queued";
        this.#say({ type: "result", request, code: 100, name: "Accepted", meaning, instrument: sub.instrument, depth: sub.depth });
    }

    #fields(sub: Sub): void {
        this.#say({ type: "fields", instrument: sub.instrument, prices: { 7: 9811.3 }, quantities: { 12: 4 }, times: {} });
    }

    #header(sub: Sub) {
        const now = `${Date.now()}000000`;
        const { instrument, depth, book } = sub;
        return { instrument, depth, epoch: book.epoch, sequence: book.sequence, exchange_time_ns: now, receive_time_ns: now };
    }

    #image(sub: Sub): void {
        const bids = sub.book.top("bids", sub.depth);
        const asks = sub.book.top("asks", sub.depth);
        sub.sent = { bids, asks, sequence: sub.book.sequence };
        this.#say({ type: "image", ...this.#header(sub), bids, asks, missing: [], stale: [] });
    }

    #update(sub: Sub, nowMs: number): void {
        if (sub.sent === null) return this.#image(sub);
        const bids = sub.book.top("bids", sub.depth);
        const asks = sub.book.top("asks", sub.depth);
        const changed = { bids: difference(sub.sent.bids, bids), asks: difference(sub.sent.asks, asks) };
        if (changed.bids.length + changed.asks.length === 0) return;
        this.#say({ type: "update", ...this.#header(sub), previous: sub.sent.sequence, ...changed });
        sub.sent = { bids, asks, sequence: sub.book.sequence };
        sub.dueMs = nowMs + sub.intervalMs;
        this.updates += 1;
    }
}

function readDepth(depth: unknown): number | null {
    if (depth === "default") return 10;
    if (depth === "max") return 40;
    return typeof depth === "number" && Number.isInteger(depth) && depth >= 1 && depth <= limits.depth ? depth : null;
}

export function difference(before: readonly Level[], after: readonly Level[]): Level[] {
    const old = new Map(before.map((level) => [level[0], level]));
    const changed: Level[] = [];
    for (const level of after) {
        const known = old.get(level[0]);
        old.delete(level[0]);
        if (known === undefined || known.some((value, index) => value !== level[index])) changed.push(level);
    }
    for (const price of old.keys()) changed.push([price, "0", "0", null]);
    return changed;
}
