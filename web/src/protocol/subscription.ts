import { Book } from "../book/book.ts";
import type { Tape } from "../book/tape.ts";
import type { Component, Depth, Format, Kind, Result } from "./messages.ts";

/** What one part of the page wants to see of an instrument. */
export interface Scope {
    instrument: string;
    depth: Depth;
    intervalMs: number;
    kinds: readonly Kind[];
}

export type SubscriptionState =
    /** Not sent, or not answered. */
    | "requested"
    /** A component has answered, or a price has come. */
    | "live"
    /** The whole instrument cannot be had; `why` says it. */
    | "failed";

/** One holder's hand on a subscription. */
export interface Holder {
    scope: Scope;
    subscription: Subscription;
    /** A book, a trade or a field has changed: called for each of them, so it only takes a note. */
    onData: (arrivedMs: number) => void;
    /** Something else has changed that can be seen: state, components, the name. */
    onState: () => void;
}

const kindOrder: readonly Kind[] = ["book", "trades", "fields"];

/** What is common to all subscriptions of an instrument: neither trades nor fields know a depth. */
export interface InstrumentData {
    tape: Tape;
    fields: Map<string, string>;
    fieldsVersion: number;
}

/**
 * One subscription at the server: an instrument at a depth. Everybody who wants that shares it; it is as fast as the
 * fastest of them wants it, and has every kind that one of them wants.
 */
export class Subscription {
    readonly book = new Book();
    readonly holders = new Set<Holder>();
    state: SubscriptionState = "requested";
    why = "";
    /** The depth that the server has made of "default" or "max". */
    effectiveDepth: number | null;
    intervalMs = 0;
    kinds: readonly Kind[] = [];
    format: Format | null = null;
    readonly refused = new Map<Component, string>();
    conflated = 0;
    attempt = 0;
    cancelRetry: (() => void) | null = null;

    constructor(
        public id: string,
        public instrument: string,
        public depth: Depth,
        readonly data: InstrumentData,
    ) {
        this.effectiveDepth = typeof depth === "number" ? depth : null;
    }

    /** Works out anew what all holders together want. True: that is something else than before. */
    merge(): boolean {
        const scopes = [...this.holders].map((holder) => holder.scope);
        const intervalMs = Math.min(...scopes.map((scope) => scope.intervalMs));
        const kinds = kindOrder.filter((kind) => scopes.some((scope) => scope.kinds.includes(kind)));
        const changed = intervalMs !== this.intervalMs || kinds.join() !== this.kinds.join();
        this.intervalMs = intervalMs;
        this.kinds = kinds;
        return changed;
    }

    dataChanged(arrivedMs: number): void {
        for (const holder of this.holders) holder.onData(arrivedMs);
    }

    stateChanged(): void {
        for (const holder of this.holders) holder.onState();
    }

    componentAnswered(result: Result): void {
        if (result.component === undefined) return;
        if (result.code === 0) {
            this.refused.delete(result.component);
            if (result.format !== undefined) this.format = result.format;
        } else this.refused.set(result.component, `${result.name}: ${result.meaning}`);
    }
}
