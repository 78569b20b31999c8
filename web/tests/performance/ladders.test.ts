import { loadavg } from "node:os";
import { type Browser, chromium, type Page } from "playwright-core";
import { afterAll, beforeAll, expect, test } from "vitest";
import { quantile } from "../../src/paint/scheduler.ts";
import { flags } from "../browser/flags.ts";
import { startProcess, stopProcesses } from "../browser/processes.ts";
import { readBrowserCpu } from "./processes.ts";

const ladders = 50;
const rate = Number(process.env.RATE ?? 20_000);
const seconds = Number(process.env.SECONDS_MEASURED ?? 10);

let browser: Browser;
let browserPid: number;
let base: string;

beforeAll(async () => {
    base = await startProcess("tests/performance/generator.ts", "--ladders", String(ladders), "--rate", String(rate));
    const server = await chromium.launchServer({ executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium", args: flags });
    browserPid = server.process().pid!;
    browser = await chromium.connect(server.wsEndpoint());
});

afterAll(async () => {
    await browser.close();
    stopProcesses();
});

interface Measured {
    gaps: number[];
    lags: number[];
    deliveries: number[];
    updates: number;
    ms: number;
}

/** Notes how long each message was on its way to the page: until then nothing knows that it is late. */
function noteDeliveries(): void {
    const noted: number[] = [];
    Object.assign(globalThis, { deliveries: noted });
    globalThis.WebSocket = class extends WebSocket {
        constructor(address: string | URL, protocol?: string | string[]) {
            super(address, protocol);
            this.addEventListener("message", ({ data }) => {
                const stamp = /^.{0,24}"ms":"(\d+)"/.exec(String(data).slice(0, 48));
                if (stamp !== null) noted.push(Date.now() - Number(stamp[1]));
            });
        }
    };
}

/** In the page: frames, and what the page itself knows of its lag. */
async function measureFrames(duration: number): Promise<Measured> {
    const { deliveries } = globalThis as unknown as { deliveries: number[] };
    const gaps: number[] = [];
    const lags: number[] = [];
    const { updates } = globalThis.priceServerFigures!();
    const begin = performance.now();
    const first = deliveries.length;
    const timer = setInterval(() => lags.push(...globalThis.priceServerFigures!().lags), 500);
    let last = begin;
    await new Promise<void>((resolve) => {
        requestAnimationFrame(function frame() {
            const now = performance.now();
            gaps.push(now - last);
            last = now;
            if (now - begin < duration) requestAnimationFrame(frame);
            else resolve();
        });
    });
    clearInterval(timer);
    const end = globalThis.priceServerFigures!();
    return { gaps, lags: [...lags, ...end.lags], deliveries: deliveries.slice(first), updates: end.updates - updates, ms: last - begin };
}

async function openAll(): Promise<Page> {
    const page = await browser.newPage({ viewport: { width: 1920, height: 1080 } });
    await page.addInitScript(noteDeliveries);
    const answer = await fetch(`${base}api/v1/instruments`);
    const { instruments } = (await answer.json()) as { instruments: { market: string; symbol: string }[] };
    const panels = instruments.map(({ market, symbol }) => `panel=${market}:${symbol},5,0,b`);
    await page.goto(`${base}#list=0&chart=0&${panels.join("&")}`);
    await page.waitForFunction((count) => document.querySelectorAll('.panel[aria-busy="false"]').length === count, ladders);
    const visible = await page.locator(".panel").evaluateAll((all) => all.filter((one) => one.getBoundingClientRect().bottom <= innerHeight).length);
    expect(visible).toBe(ladders);
    // Warm: compiled, and the share of a frame found.
    await new Promise((resolve) => setTimeout(resolve, 3000));
    return page;
}

async function generatorFigures(): Promise<{ sent: number; dropped: number; cpuMs: number }> {
    return (await (await fetch(`${base}generator`)).json()) as { sent: number; dropped: number; cpuMs: number };
}

const round = (value: number | null, digits = 1) => Number((value ?? Number.NaN).toFixed(digits));

test(`${ladders} visible ladders stay smooth with ${rate} updates a second`, async () => {
    const page = await openAll();
    const cpuBefore = readBrowserCpu(browserPid);
    const sentBefore = await generatorFigures();
    const measured = await page.evaluate(measureFrames, seconds * 1000);
    const sentAfter = await generatorFigures();
    const cpuAfter = readBrowserCpu(browserPid);

    const frames = measured.gaps.length;
    const figures = {
        updatesPerSecond: Math.round((measured.updates * 1000) / measured.ms),
        dropped: sentAfter.dropped - sentBefore.dropped,
        medianFrameRate: round(1000 / quantile(measured.gaps, 0.5)!),
        meanFrameRate: round((frames * 1000) / measured.ms),
        paintLagMedianMs: round(quantile(measured.lags, 0.5)),
        paintLagP99Ms: round(quantile(measured.lags, 0.99)),
        deliveryMedianMs: round(quantile(measured.deliveries, 0.5)),
        deliveryP99Ms: round(quantile(measured.deliveries, 0.99)),
        paintsPerSecond: Math.round((measured.lags.length * 1000) / measured.ms),
        mainThreadMsPerFrame: round((cpuAfter.mainMs - cpuBefore.mainMs) / frames, 2),
        mainThreadPercent: round(((cpuAfter.mainMs - cpuBefore.mainMs) * 100) / measured.ms),
        browserPercent: round(((cpuAfter.totalMs - cpuBefore.totalMs) * 100) / measured.ms),
        generatorPercent: round(((sentAfter.cpuMs - sentBefore.cpuMs) * 100) / measured.ms),
        loadAverage: loadavg()[0],
    };
    const threads = [...cpuAfter.threads]
        .map(([name, ms]) => [name, round(((ms - (cpuBefore.threads.get(name) ?? 0)) * 100) / measured.ms)] as const)
        .filter(([, percent]) => percent >= 1)
        .sort((a, b) => b[1] - a[1]);
    for (const [name, value] of Object.entries(figures)) console.log(`${name.padEnd(22)} ${value}`);
    console.log(`processor time of the browser's threads, in % of a core: ${threads.map((one) => one.join(" ")).join(", ")}`);
    expect(figures.updatesPerSecond).toBeGreaterThan(rate * 0.95);
    expect(figures.medianFrameRate).toBeGreaterThanOrEqual(55);
    expect(figures.paintLagP99Ms + figures.deliveryP99Ms).toBeLessThan(100);
});
