import { Tape } from "../book/tape.ts";
import { type Clock, backOff } from "./clock.ts";
import type { Connection } from "./connection.ts";
import type { Conflated, Depth, Fields, Gap, Image, ProtocolError, Renamed, ServerMessage, Trades, Update } from "./messages.ts";
import { type Pending, RequestLog } from "./request_log.ts";
import { type Holder, type InstrumentData, type Scope, Subscription } from "./subscription.ts";

export interface Counters {
    updates: number;
    conflated: number;
    gaps: number;
    lostTrades: number;
}

export interface Complaint {
    what: string;
    where: string;
}

/**
 * All subscriptions of the page. Parts of the page hold scopes; scopes of the same instrument and depth share one
 * subscription, and the last one to let go ends it. After a lost connection everything is asked for anew, and what is
 * shown stays until its image comes.
 */
export class PriceClient {
    readonly counters: Counters = { updates: 0, conflated: 0, gaps: 0, lostTrades: 0 };
    #byInstrument = new Map<string, Subscription[]>();
    #data = new Map<string, InstrumentData>();
    #newNames = new Map<string, string>();
    #requests = new RequestLog();

    constructor(
        private readonly connection: Pick<Connection, "send" | "cancel" | "name" | "state">,
        private readonly complain: (complaint: Complaint) => void,
        private readonly clock: Clock,
    ) {}

    get subscriptions(): Subscription[] {
        return [...this.#byInstrument.values()].flat();
    }

    hold(scope: Scope, onData: Holder["onData"], onState: Holder["onState"]): Holder {
        const holder: Holder = { scope, subscription: this.#findOrCreate(scope), onData, onState };
        this.#attach(holder, holder.subscription);
        return holder;
    }

    release(holder: Holder): void {
        this.#detach(holder, holder.subscription);
    }

    #attach(holder: Holder, subscription: Subscription): void {
        const isNew = subscription.holders.size === 0;
        subscription.holders.add(holder);
        const changed = subscription.merge();
        if (isNew) this.#subscribe(subscription);
        else if (changed) this.#change(subscription, {});
    }

    #detach(holder: Holder, subscription: Subscription): void {
        if (!subscription.holders.delete(holder)) return;
        if (subscription.holders.size > 0) {
            if (subscription.merge()) this.#change(subscription, {});
            return;
        }
        this.#drop(subscription);
        if (this.connection.state !== "open" || this.connection.cancel(subscription.id)) return;
        const request = this.connection.name("u");
        this.#requests.add(request, { kind: "unsubscribe", subscription });
        this.connection.send({ type: "unsubscribe", request, subscription: subscription.id });
    }

    /** Another scope for the same holder. Where it can, the subscription at the server changes and does not begin anew. */
    rescope(holder: Holder, scope: Scope): void {
        const subscription = holder.subscription;
        holder.scope = scope;
        if (scope.instrument === subscription.instrument && scope.depth === subscription.depth) {
            if (subscription.merge()) this.#change(subscription, {});
            return;
        }
        const alone = subscription.holders.size === 1 && scope.instrument === subscription.instrument;
        if (alone && this.#find(scope.instrument, scope.depth) === undefined && subscription.state === "live") {
            subscription.depth = scope.depth;
            subscription.effectiveDepth = typeof scope.depth === "number" ? scope.depth : null;
            subscription.book.expectImage();
            subscription.merge();
            this.#change(subscription, { depth: scope.depth });
            return;
        }
        // In this order: what is common to an instrument's subscriptions lives as long as one of them.
        holder.subscription = this.#findOrCreate(scope);
        this.#attach(holder, holder.subscription);
        this.#detach(holder, subscription);
    }

    retry(subscription: Subscription): void {
        subscription.cancelRetry?.();
        subscription.cancelRetry = null;
        if (this.connection.state === "open" && subscription.holders.size > 0) {
            this.#requests.forget(subscription);
            const request = this.connection.name("u");
            this.#requests.add(request, { kind: "unsubscribe", subscription });
            this.connection.send({ type: "unsubscribe", request, subscription: subscription.id });
            this.#subscribe(subscription);
        }
    }

    /** A session has begun: it knows nothing. */
    sessionBegan(): void {
        this.#requests.clear();
        this.#newNames.clear();
        for (const subscription of this.subscriptions) this.#subscribe(subscription);
    }

    sessionEnded(): void {
        for (const subscription of this.subscriptions) {
            subscription.cancelRetry?.();
            subscription.cancelRetry = null;
            subscription.state = "requested";
            subscription.book.expectImage();
            subscription.stateChanged();
        }
    }

    receive(message: ServerMessage, arrivedMs: number): void {
        switch (message.type) {
            case "image":
            case "update":
                return this.#receiveBook(message, arrivedMs);
            case "trades":
                return this.#receiveTrades(message, arrivedMs);
            case "fields":
                return this.#receiveFields(message, arrivedMs);
            case "result":
            case "error":
                return this.#receiveAnswer(message);
            case "renamed":
                return this.#rename(message);
            case "conflated":
                return this.#receiveConflated(message);
            case "gap":
                return this.#receiveGap(message, arrivedMs);
            default:
                return undefined;
        }
    }

    #find(instrument: string, depth: Depth): Subscription | undefined {
        return this.#byInstrument
            .get(instrument)
            ?.find((one) => one.depth === depth || (typeof depth === "number" && one.effectiveDepth === depth));
    }

    /** Who is meant by a name: also by an old one, while nobody else has taken it over. */
    #named(instrument: string): readonly Subscription[] {
        const found = this.#byInstrument.get(instrument);
        if (found !== undefined) return found;
        const renamed = this.#newNames.get(instrument);
        return (renamed === undefined ? undefined : this.#byInstrument.get(renamed)) ?? [];
    }

    #findOrCreate({ instrument, depth }: Scope): Subscription {
        return this.#find(instrument, depth) ?? this.#create(instrument, depth);
    }

    #create(instrument: string, depth: Depth): Subscription {
        let data = this.#data.get(instrument);
        if (data === undefined) {
            data = { tape: new Tape(), fields: new Map(), fieldsVersion: 0 };
            this.#data.set(instrument, data);
        }
        const subscription = new Subscription(this.connection.name("s"), instrument, depth, data);
        const siblings = this.#byInstrument.get(instrument);
        if (siblings === undefined) this.#byInstrument.set(instrument, [subscription]);
        else siblings.push(subscription);
        return subscription;
    }

    #drop(subscription: Subscription): void {
        subscription.cancelRetry?.();
        this.#requests.forget(subscription);
        const siblings = (this.#byInstrument.get(subscription.instrument) ?? []).filter((one) => one !== subscription);
        if (siblings.length > 0) this.#byInstrument.set(subscription.instrument, siblings);
        else {
            this.#byInstrument.delete(subscription.instrument);
            this.#data.delete(subscription.instrument);
        }
    }

    #subscribe(subscription: Subscription): void {
        subscription.id = this.connection.name("s");
        subscription.state = "requested";
        subscription.refused.clear();
        subscription.book.expectImage();
        if (this.connection.state !== "open") return;
        this.#requests.add(subscription.id, { kind: "subscribe", subscription });
        this.connection.send({
            type: "subscribe",
            request: subscription.id,
            instrument: subscription.instrument,
            depth: subscription.depth,
            interval_ms: subscription.intervalMs,
            kinds: [...subscription.kinds],
        });
    }

    #change(subscription: Subscription, more: { depth?: Depth; image?: true }): void {
        if (this.connection.state !== "open") return;
        const request = this.connection.name("c");
        this.#requests.add(request, { kind: "change", subscription });
        const scope = more.image ? {} : { interval_ms: subscription.intervalMs, kinds: [...subscription.kinds] };
        this.connection.send({ type: "change", request, subscription: subscription.id, ...scope, ...more });
    }

    #receiveBook(message: Image | Update, arrivedMs: number): void {
        this.counters.updates += 1;
        for (const subscription of this.#named(message.instrument)) {
            if (subscription.effectiveDepth === null) subscription.effectiveDepth = message.depth;
            if (subscription.effectiveDepth !== message.depth) continue;
            if (message.type === "image") this.#applyImage(subscription, message);
            else if (!this.#applyUpdate(subscription, message)) return;
            subscription.dataChanged(arrivedMs);
            return;
        }
    }

    #applyImage(subscription: Subscription, image: Image): void {
        const { book } = subscription;
        const marks = book.needsImage ? null : String([book.missing, book.stale]);
        book.applyImage(image);
        this.#becameLive(subscription, marks);
    }

    #applyUpdate(subscription: Subscription, update: Update): boolean {
        const book = subscription.book;
        const marks = update.missing || update.stale ? String([book.missing, book.stale]) : null;
        const applied = book.applyUpdate(update);
        if (applied === "gap") {
            this.counters.gaps += 1;
            subscription.stateChanged();
            this.#change(subscription, { image: true });
        }
        if (applied === "applied" && marks !== null) this.#becameLive(subscription, marks);
        return applied === "applied";
    }

    /** `marks`: what was missing and stale before; null if it was not known. */
    #becameLive(subscription: Subscription, marks: string | null): void {
        const { missing, stale } = subscription.book;
        subscription.state = "live";
        subscription.attempt = 0;
        if (marks !== String([missing, stale])) subscription.stateChanged();
    }

    #receiveTrades(message: Trades, arrivedMs: number): void {
        const data = this.#named(message.instrument)[0]?.data;
        if (data === undefined) return;
        data.tape.add(message.trades);
        for (const one of this.#named(message.instrument)) one.dataChanged(arrivedMs);
    }

    #receiveFields(message: Fields, arrivedMs: number): void {
        const data = this.#named(message.instrument)[0]?.data;
        if (data === undefined) return;
        for (const group of [message.prices, message.quantities, message.times]) {
            for (const [name, value] of Object.entries(group ?? {})) data.fields.set(name, String(value));
        }
        data.fieldsVersion += 1;
        for (const one of this.#named(message.instrument)) one.dataChanged(arrivedMs);
    }

    #receiveConflated(message: Conflated): void {
        this.counters.conflated += message.count;
        for (const one of this.#named(message.instrument)) {
            if (one.effectiveDepth === message.depth) one.conflated += message.count;
        }
    }

    #receiveGap(message: Gap, arrivedMs: number): void {
        this.counters.lostTrades += message.lost;
        this.#named(message.instrument)[0]?.data.tape.lose(message.lost);
        for (const one of this.#named(message.instrument)) one.dataChanged(arrivedMs);
    }

    /** What was asked for under the old name goes on under the new one: an image opens the new epoch. */
    #rename(message: Renamed): void {
        const siblings = this.#byInstrument.get(message.instrument);
        const data = this.#data.get(message.instrument);
        if (siblings === undefined || data === undefined) return;
        const instrument = `${message.instrument.split(":", 1)[0]}:${message.symbol}`;
        this.#byInstrument.delete(message.instrument);
        this.#data.delete(message.instrument);
        this.#byInstrument.set(instrument, [...(this.#byInstrument.get(instrument) ?? []), ...siblings]);
        this.#data.set(instrument, data);
        this.#newNames.set(message.instrument, instrument);
        for (const subscription of siblings) {
            subscription.instrument = instrument;
            subscription.book.expectImage();
            for (const holder of subscription.holders) holder.scope = { ...holder.scope, instrument };
            subscription.stateChanged();
        }
    }

    #receiveAnswer(message: Extract<ServerMessage, { type: "result" | "error" }>): void {
        if (message.request === null) {
            if (message.type === "error") this.complain({ what: message.message, where: message.where ?? message.code });
            return;
        }
        // Of a subscription that has been let go meanwhile nobody wants to hear.
        const pending = this.#requests.get(message.request);
        if (pending === undefined || pending.kind === "unsubscribe") return;
        if (message.type === "error") this.#receiveError(pending, message);
        else this.#receiveResult(pending, message);
    }

    #receiveError({ kind, subscription }: Pending, error: ProtocolError): void {
        if (error.code === "unauthenticated") return;
        if (kind === "change") {
            // It has changed nothing, so both sides disagree now: begin anew, or soon.
            if (error.code === "too_many_requests") this.#again(subscription);
            else this.retry(subscription);
            return;
        }
        this.#refuse(subscription, error.message, error.code === "too_many_requests" || error.code === "not_ready");
        this.complain({ what: error.message, where: [subscription.instrument, error.where].filter(Boolean).join(", ") });
    }

    #receiveResult({ subscription }: Pending, result: Extract<ServerMessage, { type: "result" }>): void {
        if (result.code === 100) {
            if (result.depth !== undefined) subscription.effectiveDepth = result.depth;
            return;
        }
        subscription.componentAnswered(result);
        if (result.code === 0) subscription.state = "live";
        else if (result.code === 13 || result.code === 24) this.#again(subscription);
        else if (result.component === undefined) {
            this.#refuse(subscription, result.meaning, true);
            this.complain({ what: `${result.name}: ${result.meaning}`, where: subscription.instrument });
        }
        subscription.stateChanged();
    }

    #refuse(subscription: Subscription, why: string, mayPass: boolean): void {
        subscription.state = "failed";
        subscription.why = why;
        subscription.stateChanged();
        if (mayPass) this.#again(subscription);
    }

    #again(subscription: Subscription): void {
        subscription.cancelRetry?.();
        const delay = backOff(subscription.attempt, 1000, 60_000);
        subscription.attempt += 1;
        subscription.cancelRetry = this.clock.after(delay, () => this.retry(subscription));
    }
}
