import type { Instrument } from "./market.ts";
import type { Session, Sub } from "./session.ts";

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
        server: "mock_server",
        version: "0.1.0",
        build: "mock",
        started_ns: `${startedMs}000000`,
        time_ns: `${Date.now()}000000`,
        ready: true,
        sessions: sessions.size,
        instruments: all.length,
        markets: [...new Set(all.map(({ market }) => market))].map((name, id) => ({ id, name, default_depth: 10, max_depth: 40 })),
        gauges: {
            gateway_sessions: sessions.size,
            gateway_subscriptions: count,
            books_delivered: updates(),
            data_queue_length: Math.round(Math.random() * 40),
            memory_resident_bytes: process.memoryUsage().rss,
        },
    };
}

function describeSession(session: Session): unknown {
    return {
        session: session.id,
        remote: "127.0.0.1",
        token: "",
        since_ns: `${Date.now()}000000`,
        subscriptions: session.subs.size,
        unsent_bytes: 0,
        lag_ms: 0,
        conflated: 0,
        lost_trades: 0,
    };
}

function describeSub(session: Session, sub: Sub) {
    const scope = { depth: sub.depth, interval_ms: sub.intervalMs, trades: sub.kinds.includes("trades"), fields: sub.kinds.includes("fields") };
    return { id: session.id, holder: `session ${session.id}, ${sub.id}`, scope };
}

function subscriptions({ sessions }: ApiState): unknown[] {
    const rows = new Map<string, { holders: unknown[] }>();
    for (const session of sessions) {
        for (const sub of session.subs.values()) {
            const holder = describeSub(session, sub);
            const row = rows.get(sub.instrument) ?? {
                instrument: sub.instrument,
                symbol: sub.instrument.split(":")[1],
                provider: "mds",
                state: "active",
                merged_scope: holder.scope,
                components: ["direct", "implied"].map((component) => ({
                    component,
                    symbol: sub.instrument.split(":")[1],
                    provider: "mds",
                    is_final: true,
                    is_subscribed: true,
                    result: { code: 0, name: "Success", meaning: "the component is subscribed" },
                })),
                holders: [] as unknown[],
                last_update_ns: `${Date.now()}000000`,
            };
            row.holders.push(holder);
            rows.set(sub.instrument, row);
        }
    }
    return [...rows.values()];
}

function explain(instrument: string): unknown {
    return {
        instrument,
        provider: "mds",
        components: [{ component: "direct", is_subscribed: true, result: { code: 0, name: "Success" } }],
        decisions: ["the directory of the synthetic provider knows the symbol", "one composite subscription serves all holders"],
    };
}
