import type { TestProject } from "vitest/node";
import { prepareFolder, requireBrowser, requirePage } from "./needs.ts";
import { startMock, stopProcesses } from "./processes.ts";

/** The scenarios of faults: a server of synthetic prices, since no real one is wrong at will. */
export default async function setup({ provide }: TestProject): Promise<() => void> {
    requireBrowser();
    requirePage();
    prepareFolder();
    const base = await startMock();
    const answer = await fetch(`${base}api/v1/instruments?limit=12`);
    const { instruments } = (await answer.json()) as { instruments: { market: string; symbol: string }[] };
    provide("base", base);
    provide("active", instruments.map(({ market, symbol }) => `${market}:${symbol}`));
    return stopProcesses;
}
