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

/** Once a second: how fast prices come, and how late they are shown. */
export function measure(services: Services): void {
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
