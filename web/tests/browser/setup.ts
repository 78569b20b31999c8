import { existsSync, mkdirSync } from "node:fs";
import type { TestProject } from "vitest/node";
import { WebSocket } from "ws";
import type { ServerMessage } from "../../src/protocol/messages.ts";
import { startMock, stopMocks } from "./mock_process.ts";

declare module "vitest" {
    interface ProvidedContext {
        /** Where the server is, with a slash at the end. */
        base: string;
        /** Instruments that prices come for. */
        active: string[];
    }
}

const root = new URL("../..", import.meta.url).pathname;
/** A server may know far more instruments than it has prices for: the tests use those that move. */
async function findActive(base: string, wanted: number): Promise<string[]> {
    const answer = await fetch(`${base}api/v1/instruments?limit=60`);
    const { instruments } = (await answer.json()) as { instruments: { market: string; symbol: string }[] };
    const counts = new Map<string, number>();
    const socket = new WebSocket(`${base.replace("http", "ws")}ws`, "price-server.v1");
    await new Promise<void>((resolve) => {
        const timer = setTimeout(resolve, 15_000);
        socket.on("open", () => {
            for (const [index, { market, symbol }] of instruments.entries()) {
                socket.send(JSON.stringify({ type: "subscribe", request: `a${index}`, instrument: `${market}:${symbol}`, depth: 5 }));
            }
        });
        socket.on("message", (data) => {
            for (const line of String(data).split("\n")) {
                const message = JSON.parse(line) as ServerMessage;
                if (message.type === "update") counts.set(message.instrument, (counts.get(message.instrument) ?? 0) + 1);
            }
            if ([...counts.values()].filter((count) => count > 2).length >= wanted) {
                clearTimeout(timer);
                resolve();
            }
        });
    });
    socket.close();
    const sorted = [...counts].sort((a, b) => b[1] - a[1]).map(([name]) => name);
    if (sorted.length < 4) throw new Error(`${base} has prices for ${sorted.length} instruments only`);
    return sorted.slice(0, wanted);
}

export default async function setup({ provide }: TestProject): Promise<() => void> {
    if (!existsSync(`${root}dist/index.html`)) throw new Error("the page is not built: npm run build");
    mkdirSync(`${root}artefacts`, { recursive: true });
    const given = process.env.PRICE_SERVER_URL;
    const base = given === undefined ? await startMock() : `${given.replace(/\/$/, "")}/`;
    provide("base", base);
    provide("active", await findActive(base, 12));
    return stopMocks;
}
