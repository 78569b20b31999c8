import { quantile } from "../paint/scheduler.ts";
import { Store } from "../state/store.ts";
import type { Services } from "./services.ts";

export interface Pace {
    updatesPerSecond: number;
    roundTripMs: number | null;
    paintLagMs: number | null;
    conflated: number;
    gaps: number;
    lostTrades: number;
}

export const pace = new Store<Pace>({
    updatesPerSecond: 0,
    roundTripMs: null,
    paintLagMs: null,
    conflated: 0,
    gaps: 0,
    lostTrades: 0,
});

const intervalMs = 1000;

declare global {
    /** For measuring from outside: gives the paint lags (in ms) since it was last called, and the updates so far. */
    var priceServerFigures: (() => { lags: number[]; updates: number }) | undefined;
}

/** Once a second: how fast prices come, and how late they are shown. */
export function measure(services: Services): void {
    let taken = 0;
    globalThis.priceServerFigures = () => {
        const { lags, paints } = services.scheduler;
        const since = Math.min(lags.length, paints - taken);
        taken = paints;
        return { lags: since === 0 ? [] : lags.slice(-since), updates: services.client.counters.updates };
    };
    let updates = 0;
    let atMs = performance.now();
    setInterval(() => {
        const nowMs = performance.now();
        const { counters } = services.client;
        pace.set({
            updatesPerSecond: Math.round(((counters.updates - updates) * 1000) / (nowMs - atMs)),
            roundTripMs: services.connection.roundTripMs,
            paintLagMs: quantile(services.scheduler.lags.slice(-500), 0.99),
            conflated: counters.conflated,
            gaps: counters.gaps,
            lostTrades: counters.lostTrades,
        });
        updates = counters.updates;
        atMs = nowMs;
    }, intervalMs);
}
