import { loadavg } from "node:os";
import { type Browser, chromium } from "playwright-core";
import { afterAll, beforeAll, expect, test } from "vitest";
import { quantile } from "../../src/paint/scheduler.ts";
import { startMock, stopMocks } from "../browser/mock_process.ts";
import { flags } from "../browser/flags.ts";

const ladders = 50;
const rate = 20_000;
const seconds = 10;

let browser: Browser;
let base: string;

beforeAll(async () => {
    base = await startMock("--rate", String(rate));
    browser = await chromium.launch({ executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium", args: flags });
});

afterAll(async () => {
    await browser.close();
    stopMocks();
});

test(`${ladders} visible ladders stay smooth with ${rate} updates a second`, async () => {
    const page = await browser.newPage({ viewport: { width: 1920, height: 1080 } });
    const answer = await fetch(`${base}api/v1/instruments?limit=${ladders}`);
    const { instruments } = (await answer.json()) as { instruments: { market: string; symbol: string }[] };
    const panels = instruments.map(({ market, symbol }) => `panel=${market}:${symbol},5,0,b`);
    await page.goto(`${base}#list=0&chart=0&${panels.join("&")}`);
    await page.waitForFunction((count) => document.querySelectorAll('.panel[aria-busy="false"]').length === count, ladders);
    const visible = await page.locator(".panel").evaluateAll((all) => all.filter((one) => one.getBoundingClientRect().bottom <= innerHeight).length);
    expect(visible).toBe(ladders);
    // Warm: compiled, and the share of a frame found.
    await new Promise((resolve) => setTimeout(resolve, 3000));

    const measured = await page.evaluate(async (duration) => {
        const gaps: number[] = [];
        const lags: number[] = [];
        globalThis.priceServerFigures!();
        const begin = performance.now();
        const { updates } = globalThis.priceServerFigures!();
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
        return { gaps, lags: [...lags, ...end.lags], rate: ((end.updates - updates) * 1000) / (last - begin) };
    }, seconds * 1000);

    const figures = {
        updatesPerSecond: Math.round(measured.rate),
        medianFrameRate: Math.round(10_000 / quantile(measured.gaps, 0.5)!) / 10,
        meanFrameRate: Math.round((measured.gaps.length / seconds) * 10) / 10,
        paintLagMedianMs: Math.round(quantile(measured.lags, 0.5)!),
        paintLagP99Ms: Math.round(quantile(measured.lags, 0.99)!),
        paintsPerSecond: Math.round(measured.lags.length / seconds),
        loadAverage: loadavg()[0],
    };
    console.log(JSON.stringify(figures));
    expect(figures.updatesPerSecond).toBeGreaterThan(rate * 0.95);
    expect(figures.medianFrameRate).toBeGreaterThanOrEqual(55);
    expect(figures.paintLagP99Ms).toBeLessThan(100);
});
