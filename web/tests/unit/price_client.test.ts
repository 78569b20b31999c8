import { beforeEach, describe, expect, test } from "vitest";
import type { ClientMessage, Result, ServerMessage } from "../../src/protocol/messages.ts";
import type { ConnectionState } from "../../src/protocol/connection.ts";
import { type Complaint, PriceClient } from "../../src/protocol/price_client.ts";
import type { Scope } from "../../src/protocol/subscription.ts";
import { HandClock, image, instrument, level, update } from "./builders.ts";

/** Notes what is sent. */
class FakeConnection {
    state: ConnectionState = "open";
    sent: ClientMessage[] = [];
    unsent = new Set<string>();
    #names = 0;

    send(message: ClientMessage): void {
        this.sent.push(message);
    }

    cancel(request: string): boolean {
        return this.unsent.has(request);
    }

    name(prefix: string): string {
        this.#names += 1;
        return prefix + this.#names;
    }

    take(): ClientMessage[] {
        return this.sent.splice(0);
    }
}

const scope: Scope = { instrument, depth: 5, intervalMs: 0, kinds: ["book"] };
const nothing = () => undefined;

let connection: FakeConnection;
let clock: HandClock;
let complaints: Complaint[];
let client: PriceClient;

beforeEach(() => {
    connection = new FakeConnection();
    clock = new HandClock();
    complaints = [];
    client = new PriceClient(connection, (complaint) => complaints.push(complaint), clock);
});

function hold(change: Partial<Scope> = {}) {
    const seen: number[] = [];
    const holder = client.hold({ ...scope, ...change }, (ms) => seen.push(ms), nothing);
    return { holder, seen, subscription: holder.subscription };
}

function receive(...messages: ServerMessage[]): void {
    for (const message of messages) client.receive(message, clock.now());
}

function result(request: string, code: number, more: Partial<Result> = {}): Result {
    return { type: "result", request, code, name: "Name", meaning: "meaning", ...more };
}

describe("PriceClient: scopes", () => {
    test("shares one subscription among holders of the same instrument and depth", () => {
        const one = hold({ intervalMs: 500 });
        const two = hold({ intervalMs: 100, kinds: ["trades"] });
        expect(one.subscription).toBe(two.subscription);
        expect(connection.take()).toMatchObject([
            { type: "subscribe", instrument, depth: 5, interval_ms: 500, kinds: ["book"] },
            { type: "change", interval_ms: 100, kinds: ["book", "trades"] },
        ]);
    });

    test("goes back to the slower interval when the faster holder lets go", () => {
        const slow = hold({ intervalMs: 500 });
        const fast = hold({ intervalMs: 0 });
        connection.take();
        client.release(fast.holder);
        expect(connection.take()).toMatchObject([{ type: "change", subscription: slow.subscription.id, interval_ms: 500 }]);
    });

    test("ends the subscription when the last holder lets go", () => {
        const { holder, subscription } = hold();
        connection.take();
        client.release(holder);
        client.release(holder);
        expect(connection.take()).toMatchObject([{ type: "unsubscribe", subscription: subscription.id }]);
        expect(client.subscriptions).toEqual([]);
    });

    test("sends nothing for a subscription that was let go before it left", () => {
        const { holder, subscription } = hold();
        connection.take();
        connection.unsent.add(subscription.id);
        client.release(holder);
        expect(connection.take()).toEqual([]);
    });

    test("changes the depth of a live subscription in place, and waits for its image", () => {
        const { holder, subscription } = hold();
        receive(image());
        connection.take();
        client.rescope(holder, { ...scope, depth: 10 });
        expect(connection.take()).toMatchObject([{ type: "change", subscription: subscription.id, depth: 10 }]);
        receive(update());
        expect(subscription.book.sequence).toBe(10);
        receive(image({ depth: 10, sequence: 30 }), update({ depth: 10, previous: 30, sequence: 31 }));
        expect(subscription.book.sequence).toBe(31);
    });

    test("joins the subscription that has the depth already", () => {
        const five = hold();
        const ten = hold({ depth: 10 });
        receive(image(), image({ depth: 10 }));
        connection.take();
        client.rescope(ten.holder, scope);
        expect(ten.holder.subscription).toBe(five.subscription);
        expect(connection.take()).toMatchObject([{ type: "unsubscribe", subscription: ten.subscription.id }]);
    });

    test("knows a market's own depth by the answer", () => {
        const { subscription } = hold({ depth: "max" });
        receive(result(subscription.id, 100, { depth: 40 }), image({ depth: 5 }), image({ depth: 40, sequence: 7 }));
        expect(subscription.book.sequence).toBe(7);
    });
});

describe("PriceClient: prices", () => {
    test("asks once for an image after a gap", () => {
        const { subscription } = hold();
        receive(image());
        connection.take();
        receive(update({ previous: 8 }), update({ previous: 11, sequence: 12 }));
        const sent = connection.take();
        expect(sent).toMatchObject([{ type: "change", subscription: subscription.id, image: true }]);
        expect(sent[0]).not.toHaveProperty("kinds");
        expect(client.counters.gaps).toBe(1);
    });

    test("tells holders of each change that counts, with the time it came", () => {
        const { seen } = hold();
        clock.advance(7);
        receive(image(), update({ bids: [level("99", "3")] }), update({ previous: 1 }));
        expect(seen).toEqual([7, 7]);
    });

    test("takes trades that two depths bring only once", () => {
        const { subscription } = hold({ kinds: ["trades"] });
        hold({ kinds: ["trades"], depth: 10 });
        const trade = { price: "1", quantity: "1", aggressor: null, exchange_time_ns: null, receive_time_ns: null, id: "7" };
        receive({ type: "trades", instrument, trades: [trade] }, { type: "trades", instrument, trades: [trade] });
        expect(subscription.data.tape.trades.length).toBe(1);
    });

    test("counts what was conflated and lost", () => {
        const { subscription } = hold();
        receive({ type: "conflated", instrument, depth: 5, count: 4 }, { type: "gap", instrument, kind: "trades", lost: 17 });
        expect(client.counters).toMatchObject({ conflated: 4, lostTrades: 17 });
        expect([subscription.conflated, subscription.data.tape.lost]).toEqual([4, 17]);
    });

    test("follows a renamed instrument, whichever name its prices come under", () => {
        const { subscription } = hold();
        receive(image(), { type: "renamed", instrument, symbol: "XBTUSDT", epoch: 2 });
        expect(subscription.instrument).toBe("USDM:XBTUSDT");
        receive(image({ instrument: "USDM:XBTUSDT", epoch: 2, sequence: 1 }));
        expect(subscription.book.epoch).toBe(2);
        receive(update({ epoch: 2, previous: 1, sequence: 2 }));
        expect(subscription.book.sequence).toBe(2);
    });

    test("does not mix an old name up with its next owner", () => {
        const old = hold();
        receive(image(), { type: "renamed", instrument, symbol: "NEW", epoch: 2 });
        const next = hold();
        receive(image({ sequence: 50 }));
        expect(next.subscription.book.sequence).toBe(50);
        expect(old.subscription.book.sequence).toBe(10);
    });
});

describe("PriceClient: answers", () => {
    test("says what is wrong, and where", () => {
        const { subscription } = hold();
        receive({ type: "error", request: subscription.id, code: "bad_value", where: "depth", message: "too deep" });
        expect(complaints).toEqual([{ what: "too deep", where: `${instrument}, depth` }]);
        expect([subscription.state, subscription.why]).toEqual(["failed", "too deep"]);
    });

    test("says an error that belongs to no request", () => {
        receive({ type: "error", request: null, code: "bad_json", where: null, message: "not JSON" });
        expect(complaints).toEqual([{ what: "not JSON", where: "bad_json" }]);
    });

    test("keeps quiet about a subscription that has been let go", () => {
        const { holder, subscription } = hold();
        client.release(holder);
        receive({ type: "error", request: subscription.id, code: "unknown_instrument", where: "instrument", message: "no" });
        expect(complaints).toEqual([]);
    });

    test("notes which component was refused, and lives on with the others", () => {
        const { subscription } = hold();
        receive(result(subscription.id, 0, { component: "direct" }), result(subscription.id, 17, { component: "implied" }));
        expect(subscription.state).toBe("live");
        expect([...subscription.refused.keys()]).toEqual(["implied"]);
        expect(complaints).toEqual([]);
    });

    test("tries again, later and later, when the whole instrument cannot be had", () => {
        const { subscription } = hold();
        connection.take();
        receive(result(subscription.id, 17));
        expect(subscription.state).toBe("failed");
        clock.advance(1000);
        expect(connection.take().map(({ type }) => type)).toEqual(["unsubscribe", "subscribe"]);
        receive(result(subscription.id, 17));
        clock.advance(1000);
        expect(connection.take()).toEqual([]);
        clock.advance(1000);
        expect(connection.take().length).toBe(2);
    });

    test("subscribes again when somebody has taken the instrument down", () => {
        const { subscription } = hold();
        receive(image());
        connection.take();
        receive(result(subscription.id, 13));
        clock.advance(1000);
        expect(connection.take()).toMatchObject([{ type: "unsubscribe" }, { type: "subscribe", instrument }]);
    });

    test("asks for everything anew in a new session, and shows nothing of the old one as live", () => {
        const { subscription } = hold();
        receive(image());
        connection.take();
        connection.state = "waiting";
        client.sessionEnded();
        expect([subscription.book.needsImage, subscription.book.hasImage]).toEqual([true, true]);
        const late = hold({ depth: 10 });
        expect(connection.take()).toEqual([]);
        connection.state = "open";
        client.sessionBegan();
        expect(connection.take()).toMatchObject([{ depth: 5 }, { depth: 10 }]);
        expect(late.subscription.state).toBe("requested");
    });
});
