import { beforeEach, describe, expect, test } from "vitest";
import { backOff } from "../../src/protocol/clock.ts";
import { Connection, type Socket } from "../../src/protocol/connection.ts";
import type { ServerMessage } from "../../src/protocol/messages.ts";
import { Outbox } from "../../src/protocol/outbox.ts";
import { HandClock, hello } from "./builders.ts";

class FakeSocket implements Socket {
    onopen = null;
    onmessage: Socket["onmessage"] = null;
    onclose: Socket["onclose"] = null;
    sent: string[] = [];
    send(text: string): void {
        this.sent.push(text);
    }
    close(): void {
        this.onclose?.({ code: 1000, reason: "" });
    }
    say(...messages: ServerMessage[]): void {
        this.onmessage?.({ data: messages.map((one) => JSON.stringify(one)).join("\n") });
    }
    types(): string[] {
        return this.sent.flatMap((text) => text.split("\n")).map((line) => (JSON.parse(line) as { type: string }).type);
    }
}

let clock: HandClock;
let sockets: FakeSocket[];
let events: string[];

beforeEach(() => {
    clock = new HandClock();
    sockets = [];
    events = [];
});

function connect(token: string | null = null): Connection {
    const connection = new Connection(
        () => {
            const socket = new FakeSocket();
            sockets.push(socket);
            return socket;
        },
        {
            state: (state) => events.push(state),
            open: () => events.push("session"),
            message: ({ type }) => events.push(`message ${type}`),
            refused: () => events.push("refused"),
            broken: (what) => events.push(`broken ${what}`),
        },
        clock,
        token,
    );
    connection.start();
    return connection;
}

describe("Connection", () => {
    test("opens with the greeting, and measures the way there and back", () => {
        const connection = connect();
        sockets[0]!.say(hello());
        expect(events).toEqual(["connecting", "open", "session"]);
        clock.advance(0);
        expect(sockets[0]!.types()).toEqual(["ping"]);
        clock.advance(30);
        sockets[0]!.say({ type: "pong", request: "p1", time_ns: "1" });
        expect(connection.roundTripMs).toBe(30);
    });

    test("comes back after growing pauses", () => {
        connect();
        const pauses: number[] = [];
        for (let attempt = 0; attempt < 8; attempt += 1) {
            sockets.at(-1)!.onclose?.({ code: 1006, reason: "" });
            const before = clock.now();
            const count = sockets.length;
            while (sockets.length === count) clock.advance(1);
            pauses.push(clock.now() - before);
        }
        expect(pauses[0]).toBeLessThanOrEqual(250);
        expect(pauses[4]).toBeGreaterThan(pauses[1]! * 3);
        expect(pauses[7]).toBeLessThanOrEqual(15_000);
    });

    test("sends a known token by itself", () => {
        connect("secret");
        sockets[0]!.say(hello({ authenticated: false }));
        expect(JSON.parse(sockets[0]!.sent[0]!)).toEqual({ type: "authenticate", token: "secret" });
        expect(events).not.toContain("session");
        sockets[0]!.say({ type: "authenticated", rights: { markets: ["USDM"], operations: false } });
        expect(events.at(-1)).toBe("session");
    });

    test("asks for a token, and for another one when it was wrong", () => {
        const connection = connect();
        sockets[0]!.say(hello({ authenticated: false }));
        expect(events.at(-1)).toBe("token");
        connection.authenticate("wrong");
        sockets[0]!.onclose?.({ code: 1008, reason: "" });
        expect(events.slice(-2)).toEqual(["token", "refused"]);
        clock.advance(60_000);
        expect(sockets.length).toBe(1);
        connection.authenticate("right");
        sockets[1]!.say(hello({ authenticated: false }));
        expect(JSON.parse(sockets[1]!.sent[0]!)).toEqual({ type: "authenticate", token: "right" });
    });

    test("does not call a token wrong that was never sent", () => {
        connect();
        sockets[0]!.say(hello({ authenticated: false }));
        sockets[0]!.onclose?.({ code: 1008, reason: "" });
        expect(events).not.toContain("refused");
    });

    test("hears nothing of a session that is over", () => {
        connect();
        const [first] = sockets;
        first!.say(hello());
        first!.onclose?.({ code: 1001, reason: "" });
        first!.say({ type: "conflated", instrument: "A:B", depth: 1, count: 1 });
        expect(events).not.toContain("message conflated");
    });

    test("reports what is not understood, and goes on", () => {
        connect();
        sockets[0]!.onmessage?.({ data: "nonsense" });
        sockets[0]!.say(hello());
        expect(events).toEqual(["connecting", "broken not understood: nonsense", "open", "session"]);
    });
});

describe("Outbox", () => {
    const ping = (request: string) => ({ type: "ping" as const, request });

    test("puts what is ready into one message", () => {
        const outbox = new Outbox({ requestsPerSecond: 100, messageBytes: 65536 }, 0);
        outbox.push(ping("a"));
        outbox.push(ping("b"));
        expect(outbox.take(0).map((text) => text.split("\n").length)).toEqual([2]);
    });

    test("never sends faster than it may", () => {
        const outbox = new Outbox({ requestsPerSecond: 10, messageBytes: 65536 }, 0);
        for (let i = 0; i < 25; i += 1) outbox.push(ping(String(i)));
        const lines = (nowMs: number) => outbox.take(nowMs).flatMap((text) => text.split("\n")).length;
        expect([lines(0), lines(500), lines(1000)]).toEqual([10, 5, 5]);
        expect(outbox.delay()).toBe(100);
    });

    test("begins another message before one grows too long", () => {
        const outbox = new Outbox({ requestsPerSecond: 100, messageBytes: 400 }, 0);
        for (let i = 0; i < 10; i += 1) outbox.push(ping(String(i)));
        const texts = outbox.take(0);
        expect(texts.length).toBeGreaterThan(1);
        expect(Math.max(...texts.map((text) => text.length))).toBeLessThanOrEqual(400);
        expect(texts.join("\n").split("\n").length).toBe(10);
    });

    test("takes back what has not left", () => {
        const outbox = new Outbox({ requestsPerSecond: 100, messageBytes: 65536 }, 0);
        outbox.push(ping("a"));
        expect([outbox.cancel("a"), outbox.cancel("a")]).toEqual([true, false]);
        expect(outbox.take(0)).toEqual([]);
    });
});

describe("backOff", () => {
    test("doubles up to its limit, and differs from page to page", () => {
        expect([0, 1, 2, 10].map((attempt) => backOff(attempt, 250, 15_000, 1))).toEqual([250, 500, 1000, 15_000]);
        expect(backOff(0, 250, 15_000, 0)).toBe(188);
    });
});
