import { type Clock, backOff } from "./clock.ts";
import { decode } from "./decode.ts";
import type { ClientMessage, Hello, ServerMessage } from "./messages.ts";
import { subprotocol } from "./messages.ts";
import { Outbox } from "./outbox.ts";

export type ConnectionState =
    | "connecting"
    /** The server demands a token: nothing goes on before `authenticate`. */
    | "token"
    | "open"
    /** Lost; the next attempt comes by itself. */
    | "waiting";

export interface Socket {
    send(text: string): void;
    close(code?: number): void;
    onopen: (() => void) | null;
    onmessage: ((event: { data: unknown }) => void) | null;
    onclose: ((event: { code: number; reason: string }) => void) | null;
}

export interface ConnectionEvents {
    state(state: ConnectionState, why: string): void;
    /** A session has begun, and may be asked for prices. */
    open(hello: Hello): void;
    message(message: ServerMessage, arrivedMs: number): void;
    /** A token was refused. */
    refused(): void;
    broken(what: string): void;
}

const closeReasons: Record<number, string> = {
    1001: "the server has stopped, or this page was silent for too long",
    1006: "the server cannot be reached",
    1008: "the server wants another token",
    1013: "this page was too slow",
};

const pingIntervalMs = 5000;

/**
 * One session after the other: opens the WebSocket, answers for the token, measures the way there and back, and
 * comes back by itself with growing pauses. Who uses it sends requests while it is open, and asks anew after each `open`.
 */
export class Connection {
    state: ConnectionState = "connecting";
    hello: Hello | null = null;
    roundTripMs: number | null = null;
    #socket: Socket | null = null;
    #outbox: Outbox | null = null;
    #attempt = 0;
    #token: string | null;
    #awaitsAuthentication = false;
    #cancelFlush: (() => void) | null = null;
    #cancelPing: (() => void) | null = null;
    #cancelRetry: (() => void) | null = null;
    #pingSentMs: number | null = null;
    #requests = 0;

    constructor(
        private readonly openSocket: (protocol: string) => Socket,
        private readonly events: ConnectionEvents,
        private readonly clock: Clock,
        token: string | null = null,
    ) {
        this.#token = token;
    }

    start(): void {
        this.#cancelRetry?.();
        this.#cancelRetry = null;
        this.#set("connecting", "");
        const socket = this.openSocket(subprotocol);
        this.#socket = socket;
        socket.onmessage = ({ data }) => {
            if (this.#socket === socket) this.#receive(data);
        };
        socket.onclose = ({ code, reason }) => {
            if (this.#socket === socket) this.#lost(code, reason);
        };
    }

    stop(): void {
        const socket = this.#socket;
        this.#end();
        this.#cancelRetry?.();
        socket?.close(1000);
    }

    /** A name for a request that no other of this connection has. */
    name(prefix: string): string {
        this.#requests += 1;
        return `${prefix}${this.#requests}`;
    }

    send(message: ClientMessage): void {
        if (this.#outbox === null) return;
        this.#outbox.push(message);
        this.#scheduleFlush();
    }

    cancel(request: string): boolean {
        return this.#outbox?.cancel(request) ?? false;
    }

    authenticate(token: string): void {
        this.#token = token;
        if (this.#socket === null) this.start();
        else if (this.hello !== null) this.#sendToken(token);
    }

    #sendToken(token: string): void {
        this.#awaitsAuthentication = true;
        this.#socket?.send(JSON.stringify({ type: "authenticate", token } satisfies ClientMessage));
    }

    #receive(data: unknown): void {
        const arrivedMs = this.clock.now();
        if (typeof data !== "string") {
            this.events.broken("the server has sent binary data");
            return;
        }
        const { messages, broken } = decode(data);
        for (const line of broken) this.events.broken(`not understood: ${line.slice(0, 80)}`);
        for (const message of messages) this.#handle(message, arrivedMs);
    }

    #handle(message: ServerMessage, arrivedMs: number): void {
        if (message.type === "hello") this.#greet(message);
        else if (message.type === "authenticated") {
            this.#awaitsAuthentication = false;
            if (this.hello !== null) this.#open({ ...this.hello, authenticated: true, rights: message.rights });
        } else if (message.type === "pong") {
            if (this.#pingSentMs !== null) this.roundTripMs = arrivedMs - this.#pingSentMs;
            this.#pingSentMs = null;
        } else this.events.message(message, arrivedMs);
    }

    #greet(hello: Hello): void {
        this.hello = hello;
        const { requests_per_second: requestsPerSecond, message_bytes: messageBytes } = hello.limits;
        // A fifth is left over: the two clocks do not count the same second.
        const limits = { requestsPerSecond: Math.max(1, (requestsPerSecond || 100) * 0.8), messageBytes: messageBytes || 65536 };
        this.#outbox = new Outbox(limits, this.clock.now());
        if (hello.authenticated) this.#open(hello);
        else if (this.#token !== null) this.#sendToken(this.#token);
        else this.#set("token", "the server demands a token");
    }

    #open(hello: Hello): void {
        this.hello = hello;
        this.#attempt = 0;
        this.#set("open", "");
        this.events.open(hello);
        this.#ping();
    }

    #ping(): void {
        this.#pingSentMs ??= this.clock.now();
        this.send({ type: "ping", request: this.name("p") });
        this.#cancelPing = this.clock.after(pingIntervalMs, () => this.#ping());
    }

    #scheduleFlush(): void {
        if (this.#cancelFlush !== null) return;
        const delay = this.#outbox?.delay() ?? null;
        if (delay === null) return;
        this.#cancelFlush = this.clock.after(delay, () => {
            this.#cancelFlush = null;
            for (const text of this.#outbox?.take(this.clock.now()) ?? []) this.#socket?.send(text);
            this.#scheduleFlush();
        });
    }

    #lost(code: number, reason: string): void {
        const refused = this.#awaitsAuthentication;
        this.#end();
        const why = closeReasons[code] ?? (reason || `closed with ${code}`);
        if (refused || code === 1008) {
            // The next attempt is the user's: it begins with another token.
            this.#token = null;
            this.#set("token", why);
            if (refused) this.events.refused();
            return;
        }
        this.#set("waiting", why);
        // Who was too slow, or one too many, does not come back at once.
        const firstMs = code === 1013 ? 4000 : 250;
        this.#cancelRetry = this.clock.after(backOff(this.#attempt, firstMs, 15_000), () => this.start());
        this.#attempt += 1;
    }

    #end(): void {
        this.#cancelFlush?.();
        this.#cancelPing?.();
        this.#cancelFlush = this.#cancelPing = null;
        this.#socket = null;
        this.#outbox = null;
        this.hello = null;
        this.#awaitsAuthentication = false;
        this.#pingSentMs = null;
        this.roundTripMs = null;
    }

    #set(state: ConnectionState, why: string): void {
        this.state = state;
        this.events.state(state, why);
    }
}
