import { type Browser, type BrowserContext, chromium, type Page, type WebSocketRoute } from "playwright-core";
import { afterAll, afterEach, beforeAll, expect, inject } from "vitest";
import { watchDrawing } from "./drawing.ts";
import { flags } from "./flags.ts";
import { chromiumPath } from "./needs.ts";

export const base = inject("base");
export const active = inject("active");
/** An address that asks for nothing, so that nobody is taken for a newcomer. */
export const emptyPage = "#list=1";

let browser: Browser;
const contexts: BrowserContext[] = [];
const problems: string[] = [];

beforeAll(async () => {
    browser = await chromium.launch({ executablePath: chromiumPath, args: flags });
});

afterEach(async () => {
    for (const context of contexts.splice(0)) await context.close();
    const found = problems.splice(0);
    expect(found, "what the browser complained about").toEqual([]);
});

afterAll(() => browser.close());

export type Json = Record<string, unknown> & { type: string };

/** Between the page and its server: sees everything, and may change, keep back or make up messages. */
export class Tap {
    readonly sent: Json[] = [];
    readonly received: Json[] = [];
    sockets: WebSocketRoute[] = [];
    /** Null keeps a message of the server back. */
    change: (message: Json) => Json | null = (message) => message;
    /** True: the page's message does not reach the server. */
    keepBack: (message: Json) => boolean = () => false;
    /** Connections are refused while this is set. */
    refuse = false;

    handle(socket: WebSocketRoute): void {
        if (this.refuse) return void socket.close({ code: 1013, reason: "not now" });
        this.sockets.push(socket);
        const server = socket.connectToServer();
        socket.onMessage((data) => {
            const passed = lines(data).filter((message) => {
                this.sent.push(message);
                return !this.keepBack(message);
            });
            if (passed.length > 0) server.send(join(passed));
        });
        server.onMessage((data) => {
            const passed = lines(data).flatMap((message) => this.change(message) ?? []);
            this.received.push(...passed);
            if (passed.length > 0) socket.send(join(passed));
        });
    }

    say(...messages: object[]): void {
        this.sockets.at(-1)!.send(messages.map((message) => JSON.stringify(message)).join("\n"));
    }

    sentOf(type: string): Json[] {
        return this.sent.filter((message) => message.type === type);
    }

    receivedOf(type: string): Json[] {
        return this.received.filter((message) => message.type === type);
    }

    /** The last image of an instrument that the page has got. */
    image(instrument: string): Json {
        return this.receivedOf("image").findLast((message) => message.instrument === instrument)!;
    }

    /** From now on the books stand still: what is shown can be compared. */
    freeze(): void {
        this.change = (message) => (["image", "update", "trades"].includes(message.type) ? null : message);
    }
}

function lines(data: string | Buffer): Json[] {
    return String(data)
        .split("\n")
        .map((line) => JSON.parse(line) as Json);
}

function join(messages: Json[]): string {
    return messages.map((message) => JSON.stringify(message)).join("\n");
}

export interface OpenOptions {
    width?: number;
    height?: number;
    hash?: string;
    tap?: Tap;
    dark?: boolean;
    reducedMotion?: boolean;
    /** Before the page is loaded. */
    prepare?: (page: Page) => Promise<unknown>;
    /** Complaints of the browser that the test provokes. */
    expected?: RegExp;
}

export async function openPage(options: OpenOptions = {}): Promise<Page> {
    const context = await browser.newContext({
        viewport: { width: options.width ?? 1280, height: options.height ?? 800 },
        colorScheme: options.dark ? "dark" : "light",
        reducedMotion: options.reducedMotion ? "reduce" : "no-preference",
    });
    contexts.push(context);
    const page = await context.newPage();
    const note = (text: string) => {
        if (!options.expected?.test(text)) problems.push(text);
    };
    page.on("pageerror", (error) => note(String(error)));
    page.on("console", (message) => {
        if (message.type() === "error" || message.type() === "warning") note(message.text());
    });
    page.on("request", (request) => {
        if (!/^(data|blob):/.test(request.url()) && new URL(request.url()).origin !== new URL(base).origin) note(`third party: ${request.url()}`);
    });
    const { tap } = options;
    if (tap !== undefined) await page.routeWebSocket(/\/ws$/, (socket) => tap.handle(socket));
    await page.addInitScript(watchDrawing);
    await options.prepare?.(page);
    await page.goto(base + (options.hash ?? ""));
    await page.waitForSelector(".top");
    return page;
}

export function hashOf(instruments: readonly string[], scope = "5,0,bt", more = ""): string {
    return `#${instruments.map((name) => `panel=${name},${scope}`).join("&")}${more}`;
}

/** A page with these ladders, all of them with prices. */
export async function openLadders(instruments: readonly string[], options: OpenOptions & { scope?: string; more?: string } = {}): Promise<Page> {
    const page = await openPage({ ...options, hash: hashOf(instruments, options.scope, options.more) });
    await page.waitForFunction((count) => document.querySelectorAll('.panel[aria-busy="false"]').length >= count, instruments.length);
    return page;
}

/** The rows of a ladder as they are read out: bid side from the outside in, ask side from the inside out. */
export function ladderRows(page: Page, index = 0): Promise<string[][]> {
    return page
        .locator(".panel")
        .nth(index)
        .locator(".ladder-body .ladder-row")
        .evaluateAll((rows) => rows.map((row) => [...row.querySelectorAll(".cell")].map((cell) => cell.textContent?.trim() ?? "")));
}

/** The rows of a ladder as they are drawn: the texts of each, from left to right. The first row has the titles. */
export function drawnRows(page: Page, index = 0): Promise<string[][]> {
    return page
        .locator(".panel")
        .nth(index)
        .locator("canvas")
        .evaluate((canvas) => {
            const rows = new Map<number, { text: string; x: number }[]>();
            for (const { text, x, y } of globalThis.drawnTexts(canvas)) {
                const row = Math.floor(y / 14);
                rows.set(row, [...(rows.get(row) ?? []), { text, x }]);
            }
            const last = Math.max(0, ...rows.keys());
            return Array.from({ length: last + 1 }, (_, row) => (rows.get(row) ?? []).sort((a, b) => a.x - b.x).map(({ text }) => text));
        });
}

export function panelNames(page: Page): Promise<string[]> {
    return page.locator(".panel").evaluateAll((panels) => panels.map((panel) => panel.getAttribute("data-instrument") ?? ""));
}

export function toasts(page: Page): Promise<string[]> {
    return page.locator(".toast").allInnerTexts();
}
