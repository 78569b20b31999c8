import { getJson } from "../api/http.ts";
import { Store } from "../state/store.ts";
import { isFirstVisit } from "../state/persistence.ts";
import { newPanel } from "../state/view_state.ts";
import type { Services } from "./services.ts";

export type FirstVisit =
    /** Waits for the server's list. */
    | "awaited"
    /** The page has chosen what is shown, and nobody has changed it. */
    | "shown"
    | "over";

const most = 4;
/** A panel with five levels and its trades, and what stands around the panels. */
const panel = { width: 316, height: 176 };
const around = { list: 212, top: 38, chart: 196, listAbove: 168, narrow: 720 };

/** Someone who comes without a link, and was never here, is shown something that moves, as much of it as fits. */
export class Welcome {
    readonly state = new Store<FirstVisit>(isFirstVisit() ? "awaited" : "over");

    constructor(private readonly services: Services) {}

    /** A session has begun: there is a server to ask. */
    async begin(): Promise<void> {
        if (this.state.value !== "awaited") return;
        const count = panelsThatFit(innerWidth, innerHeight);
        const path = "/api/v1/instruments?limit=1000";
        const answer = await getJson<{ instruments: { market: string; symbol: string }[] }>(path).catch(() => null);
        const { view } = this.services;
        if (this.state.value !== "awaited") return;
        if (answer === null || view.value.panels.length > 0) return this.end();
        const { depth } = view.value;
        const panels = firstOfEachMarket(answer.instruments, count).map((instrument) => newPanel(instrument, depth));
        this.state.set(panels.length > 0 ? "shown" : "over");
        view.update({ panels });
    }

    /** From here on it is the user's page. */
    end(): void {
        this.state.set("over");
    }
}

export function panelsThatFit(width: number, height: number): number {
    const isNarrow = width < around.narrow;
    const columns = Math.floor((width - (isNarrow ? 0 : around.list)) / panel.width);
    const rows = Math.floor((height - around.top - (isNarrow ? around.listAbove : around.chart)) / panel.height);
    return Math.min(most, Math.max(1, columns) * Math.max(1, rows));
}

/** One of each market, then the second of each, and so on: the more different, the more there is to see. */
export function firstOfEachMarket(instruments: readonly { market: string; symbol: string }[], count: number): string[] {
    const byMarket = new Map<string, string[]>();
    for (const { market, symbol } of instruments) byMarket.set(market, [...(byMarket.get(market) ?? []), `${market}:${symbol}`]);
    const result: string[] = [];
    for (let turn = 0; result.length < Math.min(count, instruments.length); turn += 1) {
        for (const names of byMarket.values()) {
            const name = names[turn];
            if (name !== undefined && result.length < count) result.push(name);
        }
    }
    return result;
}
