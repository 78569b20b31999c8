import type { Instrument } from "./market.ts";
import type { Session } from "./session.ts";

export interface ApiState {
    instruments: readonly Instrument[];
    sessions: ReadonlySet<Session>;
    startedMs: number;
    updates: () => number;
}

/** The answers of the HTTP interface; null: there is no such path. */
export function answer(url: URL, state: ApiState): unknown {
    switch (url.pathname) {
        case "/api/v1/instruments":
            return instruments(url, state.instruments);
        case "/api/v1/status":
            return status(state);
        case "/api/v1/sessions":
            return { sessions: [...state.sessions].map(describeSession) };
        case "/api/v1/subscriptions":
            return { subscriptions: subscriptions(state) };
        case "/api/v1/explain":
            return explain(url.searchParams.get("instrument") ?? "");
        default:
            return null;
    }
}

function instruments(url: URL, all: readonly Instrument[]): unknown {
    const search = (url.searchParams.get("search") ?? "").toLowerCase();
    const limit = Math.min(1000, Number(url.searchParams.get("limit") ?? 100));
    const offset = Number(url.searchParams.get("offset") ?? 0);
    const found = all.filter(({ market, symbol }) => `${market}:${symbol}`.toLowerCase().includes(search));
    const page = found.slice(offset, offset + limit).map(({ market, symbol }) => ({ market, symbol }));
    return { total: found.length, instruments: page };
}

function status({ sessions, startedMs, updates, instruments: all }: ApiState): unknown {
    const count = [...sessions].reduce((sum, session) => sum + session.subs.size, 0);
    return {
        version: "0.1.0",
        build: "mock",
        state: "serving",
        uptime_s: Math.round((Date.now() - startedMs) / 1000),
        gauges: [
            { name: "gateway_sessions", value: sessions.size },
            { name: "gateway_subscriptions", value: count },
            { name: "books_delivered", value: updates() },
            { name: "queue_length", labels: { queue: "data" }, value: Math.round(Math.random() * 40) },
            { name: "memory_resident_bytes", value: process.memoryUsage().rss },
        ],
        providers: [{ name: "synthetic", type: "Mds", state: "up", instruments: all.length }],
        markets: [...new Set(all.map(({ market }) => market))].map((name) => ({ name, default_depth: 10, maximum_depth: 40 })),
    };
}

function describeSession(session: Session): unknown {
    return { session: session.id, peer: "127.0.0.1", subscriptions: session.subs.size, lag_bytes: 0, conflated: 0, lost_trades: 0 };
}

function subscriptions({ sessions }: ApiState): unknown[] {
    const rows = new Map<string, { instrument: string; scope: unknown; components: string[]; holders: unknown[] }>();
    for (const session of sessions) {
        for (const sub of session.subs.values()) {
            const row = rows.get(sub.instrument) ?? {
                instrument: sub.instrument,
                scope: { depth: sub.depth, interval_ms: sub.intervalMs, trades: sub.kinds.includes("trades") },
                components: ["direct", "implied"],
                holders: [],
            };
            row.holders.push({ session: session.id, subscription: sub.id, depth: sub.depth });
            rows.set(sub.instrument, row);
        }
    }
    return [...rows.values()];
}

function explain(instrument: string): unknown {
    return {
        instrument,
        provider: { name: "synthetic", type: "Mds", final: true },
        components: [{ component: "direct", state: "live", last_message_ms: 12 }],
        decisions: ["the directory of the synthetic provider knows the symbol", "one composite subscription serves all holders"],
    };
}
