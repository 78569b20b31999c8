// Prices for the measurement: as many as asked for, at next to no cost for the machine that it shares with the browser.
// Everything is written out beforehand. A cycle of messages takes the books back to where it began, so that it can be
// sent over and over; each message begins with the moment at which it was sent.
//   tsx tests/performance/generator.ts --ladders 50 --rate 20000 --every 5
import { readFile } from "node:fs/promises";
import { createServer } from "node:http";
import { extname, join, normalize } from "node:path";
import { parseArgs } from "node:util";
import { type WebSocket, WebSocketServer } from "ws";
import type { Level } from "../../src/protocol/messages.ts";
import { makeInstruments, MovingBook } from "../mock/market.ts";
import { difference, limits } from "../mock/session.ts";
import { policy, types } from "../mock/files.ts";

const { values: options } = parseArgs({
    options: {
        ladders: { type: "string", default: "50" },
        /** Updates a second, all ladders together. */
        rate: { type: "string", default: "20000" },
        /** Milliseconds between two messages. */
        every: { type: "string", default: "5" },
        dist: { type: "string", default: new URL("../../dist", import.meta.url).pathname },
    },
});

const depth = 5;
const cycleMs = 4000;
const everyMs = Number(options.every);
const rate = Number(options.rate);
const instruments = makeInstruments(Number(options.ladders));
const books = instruments.map((one, index) => new MovingBook(one, index + 1));

interface Top {
    bids: Level[];
    asks: Level[];
}

const topOf = (book: MovingBook): Top => ({ bids: book.top("bids", depth), asks: book.top("asks", depth) });
const nameOf = (index: number) => `${instruments[index]!.market}:${instruments[index]!.symbol}`;

function header(index: number, sequence: number) {
    const time = "1790000000000000000";
    return { instrument: nameOf(index), depth, epoch: 1, sequence, exchange_time_ns: time, receive_time_ns: time };
}

const begin = books.map(topOf);
const images = begin.map((top, index) =>
    JSON.stringify({ type: "image", ...header(index, 1), ...top, missing: [], stale: [] }),
);

/** The lines of one cycle, in the order in which they are sent; its last update of each book leads back to the image. */
function writeCycle(): string[] {
    const rounds = Math.max(2, Math.round((rate * cycleMs) / 1000 / books.length));
    const last = begin.map((top) => top);
    const lines: string[] = [];
    for (let round = 1; round <= rounds; round += 1) {
        books.forEach((book, index) => {
            const next = round === rounds ? begin[index]! : nextTop(book, last[index]!);
            const changed = { bids: difference(last[index]!.bids, next.bids), asks: difference(last[index]!.asks, next.asks) };
            const sequence = round === rounds ? 1 : round + 1;
            lines.push(JSON.stringify({ type: "update", ...header(index, sequence), previous: round, ...changed }));
            last[index] = next;
        });
    }
    return lines;
}

/** A step may touch what is deeper than what is shown: every update is to change something. */
function nextTop(book: MovingBook, before: Top): Top {
    const text = JSON.stringify(before);
    for (;;) {
        book.step();
        const next = topOf(book);
        if (JSON.stringify(next) !== text) return next;
    }
}

const stampDigits = 16;

interface Message {
    bytes: Buffer;
    updates: number;
}

function writeMessages(): Message[] {
    const lines = writeCycle();
    const each = (rate * everyMs) / 1000;
    const messages: Message[] = [];
    for (let from = 0; from < lines.length; ) {
        const to = Math.min(lines.length, Math.round((messages.length + 1) * each));
        const text = [`{"type":"stamp","ms":"${"0".repeat(stampDigits)}"}`, ...lines.slice(from, to)].join("\n");
        messages.push({ bytes: Buffer.from(text), updates: to - from });
        from = to;
    }
    return messages;
}

const messages = writeMessages();
const stampAt = messages[0]!.bytes.indexOf("0000");
let sent = 0;
let dropped = 0;

/** Sends what time owes; a browser that does not keep up is not buried. */
function drive(socket: WebSocket): void {
    let next = 0;
    let dueMs = performance.now();
    const timer = setInterval(() => {
        const nowMs = performance.now();
        if (socket.bufferedAmount > limits.close_bytes) {
            dropped += 1;
            dueMs = nowMs;
            return;
        }
        for (; dueMs <= nowMs; dueMs += everyMs) {
            const message = messages[next % messages.length]!;
            next += 1;
            message.bytes.write(String(Date.now()).padStart(stampDigits, "0"), stampAt, "latin1");
            socket.send(message.bytes, { binary: false });
            sent += message.updates;
        }
    }, 1);
    socket.once("close", () => clearInterval(timer));
}

interface Request {
    type: string;
    request: string;
    instrument?: string;
}

function greet(socket: WebSocket): void {
    const say = (message: object) => socket.send(JSON.stringify(message));
    say({
        type: "hello",
        protocol: 1,
        server: "generator",
        version: "0",
        build: "",
        session: 1,
        time_ns: "0",
        authenticated: true,
        rights: { markets: ["*"], operations: true },
        limits,
    });
    let subscribed = 0;
    socket.on("message", (data) => {
        for (const line of String(data).split("\n")) {
            const { type, request, instrument } = JSON.parse(line) as Request;
            if (type === "ping") say({ type: "pong", request, time_ns: "0" });
            if (type !== "subscribe") continue;
            say({ type: "result", request, code: 100, name: "Accepted", meaning: "", instrument, depth });
            socket.send(images[instruments.findIndex((_, index) => nameOf(index) === instrument)]!);
            subscribed += 1;
            if (subscribed === instruments.length) drive(socket);
        }
    });
}

const server = createServer((request, response) => {
    const url = new URL(request.url ?? "/", "http://localhost");
    if (url.pathname === "/api/v1/instruments") {
        const all = instruments.map(({ market, symbol }) => ({ market, symbol }));
        return void response.end(JSON.stringify({ total: all.length, instruments: all }));
    }
    if (url.pathname === "/generator") {
        const { user, system } = process.cpuUsage();
        return void response.end(JSON.stringify({ sent, dropped, cpuMs: (user + system) / 1000 }));
    }
    const path = url.pathname === "/" ? "/index.html" : normalize(url.pathname);
    readFile(join(options.dist, path)).then(
        (body) => response.writeHead(200, { "content-type": types[extname(path)] ?? "", "content-security-policy": policy }).end(body),
        () => response.writeHead(404).end(),
    );
});
new WebSocketServer({ server, path: "/ws" }).on("connection", greet);
server.listen(0, "127.0.0.1", () => {
    const address = server.address();
    console.log(`http://127.0.0.1:${typeof address === "object" && address !== null ? address.port : 0}/`);
});

if (process.send !== undefined) process.once("disconnect", () => process.exit());
