// A server of synthetic prices that speaks docs/protocol.md: for working on the page, and for its tests.
//   npm run mock -- --port 8080 --rate 200 --instruments 10000 --token secret
import { readFile } from "node:fs/promises";
import { createServer, type IncomingMessage, type ServerResponse } from "node:http";
import { extname, join, normalize } from "node:path";
import { parseArgs } from "node:util";
import { WebSocketServer } from "ws";
import { answer } from "./mock/api.ts";
import { policy, types } from "./mock/files.ts";
import { makeInstruments, MovingBook } from "./mock/market.ts";
import { Session } from "./mock/session.ts";

const { values: options } = parseArgs({
    options: {
        port: { type: "string", default: "8080" },
        /** Changes of books a second, all subscribed instruments together. */
        rate: { type: "string", default: "200" },
        instruments: { type: "string", default: "10000" },
        token: { type: "string" },
        dist: { type: "string", default: new URL("../dist", import.meta.url).pathname },
    },
});

const rate = Number(options.rate);
const token = options.token ?? null;
const instruments = makeInstruments(Number(options.instruments));
const byName = new Map(instruments.map((one, index) => [`${one.market}:${one.symbol}`, { one, index }]));
const books = new Map<string, MovingBook>();
const sessions = new Set<Session>();
let lastSession = 0;
let changes = 0;
const startedMs = Date.now();

const world = {
    token,
    find(name: string) {
        const found = byName.get(name);
        if (found === undefined) return undefined;
        let book = books.get(name);
        if (book === undefined) {
            book = new MovingBook(found.one, found.index + 1);
            books.set(name, book);
        }
        return { instrument: found.one, book };
    },
    near: (name: string) => [...byName.keys()].filter((one) => one.startsWith(name.slice(0, 7))).slice(0, 3),
};

async function serve(request: IncomingMessage, response: ServerResponse): Promise<void> {
    const url = new URL(request.url ?? "/", "http://localhost");
    if (url.pathname.startsWith("/-/")) return void response.end("ok\n");
    if (url.pathname.startsWith("/api/")) return serveApi(url, request, response);
    const path = url.pathname === "/" ? "/index.html" : normalize(url.pathname);
    try {
        const body = await readFile(join(options.dist, path));
        response.setHeader("content-type", types[extname(path)] ?? "application/octet-stream");
        response.setHeader("content-security-policy", policy);
        response.setHeader("x-content-type-options", "nosniff");
        response.setHeader("cache-control", "no-cache");
        response.end(body);
    } catch {
        response.writeHead(404).end();
    }
}

function serveApi(url: URL, request: IncomingMessage, response: ServerResponse): void {
    const write = (status: number, value: unknown) =>
        response.writeHead(status, { "content-type": "application/json" }).end(JSON.stringify(value));
    if (token !== null && request.headers.authorization !== `Bearer ${token}`) {
        return void write(401, { error: { code: "unauthenticated", where: "Authorization", message: "a token is needed" } });
    }
    const value = answer(url, { instruments, sessions, startedMs, updates: () => changes });
    if (value !== null) write(200, value);
    else write(404, { error: { code: "not_found", where: url.pathname, message: "there is no such path" } });
}

const server = createServer((request, response) => void serve(request, response));
const sockets = new WebSocketServer({ server, path: "/ws" });
sockets.on("connection", (socket) => {
    lastSession += 1;
    const session = new Session(lastSession, socket, world);
    sessions.add(session);
    socket.on("close", () => sessions.delete(session));
});

// Time passes unevenly: what a tick owes follows from the clock, not from the number of ticks.
let owed = 0;
let turn = 0;
let lastMs = performance.now();
setInterval(() => {
    const nowMs = performance.now();
    owed = Math.min(owed + ((nowMs - lastMs) * rate) / 1000, rate / 4);
    lastMs = nowMs;
    const live = [...new Set([...sessions].flatMap((session) => [...session.subs.values()].map((sub) => sub.book)))];
    if (live.length === 0) owed = 0;
    for (; owed >= 1; owed -= 1) {
        turn += 1;
        changes += 1;
        const book = live[turn % live.length]!;
        book.step();
        for (const session of sessions) {
            session.bookChanged(book, nowMs);
            if (turn % 13 === 0) session.traded(book);
        }
    }
    for (const session of sessions) session.flush();
}, 5);

server.listen(Number(options.port), "127.0.0.1", () => {
    const address = server.address();
    console.log(`http://127.0.0.1:${typeof address === "object" && address !== null ? address.port : options.port}/`);
});

if (process.send !== undefined) process.once("disconnect", () => process.exit());
