import { useEffect, useState } from "preact/hooks";
import { ApiError, getJson } from "../api/http.ts";
import { GaugeHistory, readGauges, readRows, type Rows, type Status } from "../api/operations.ts";
import { useStore } from "../state/store.ts";
import { Gauges } from "./gauges.tsx";
import { useServices } from "./services.ts";
import { plain, title, ValueTable } from "./values.tsx";

const refreshMs = 2000;
const mostSubscriptions = 200;

interface Reading {
    status: Status;
    subscriptions: Rows;
    sessions: Rows;
}

/** Outlives the view: who comes back finds the gauges where they were. */
const history = new GaugeHistory();

const subscriptionColumns = ["instrument", "symbol", "provider", "state", "merged_scope", "components", "holders"];
const sessionColumns = ["session", "remote", "token", "since_ns", "subscriptions", "lag_ms", "unsent_bytes", "conflated", "lost_trades"];

async function read(signal: AbortSignal): Promise<Reading> {
    const [status, subscriptions, sessions] = await Promise.all([
        getJson<Status>("/api/v1/status", signal),
        getJson<unknown>("/api/v1/subscriptions", signal),
        getJson<unknown>("/api/v1/sessions", signal),
    ]);
    history.add(readGauges(status));
    return {
        status,
        subscriptions: readRows(subscriptions, "subscriptions"),
        sessions: readRows(sessions, "sessions"),
    };
}

/** What the server does: gauges over time, its composite subscriptions with who holds them, its sessions. */
export function Operations() {
    const services = useServices();
    const tokenVersion = useStore(services.tokenVersion);
    const [reading, setReading] = useState<Reading | null>(null);
    const [error, setError] = useState<ApiError | null>(null);
    useEffect(() => {
        const abort = new AbortController();
        let timer: ReturnType<typeof setTimeout> | undefined;
        const next = () => {
            timer = setTimeout(next, refreshMs);
            if (document.hidden) return;
            read(abort.signal).then(
                (value) => {
                    setReading(value);
                    setError(null);
                },
                (reason: unknown) => reason instanceof ApiError && setError(reason),
            );
        };
        next();
        return () => {
            abort.abort();
            clearTimeout(timer);
        };
    }, [tokenVersion]);
    return (
        <div class="operations">
            <h1 class="unseen">Operations</h1>
            {error !== null && (
                <p class="error" role="alert">
                    {error.message} <span class="where">{error.where}</span>
                </p>
            )}
            {reading === null && error === null && <p class="quiet">loading…</p>}
            {reading !== null && <Shown {...reading} />}
        </div>
    );
}

function Shown({ status, subscriptions, sessions }: Reading) {
    const [filter, setFilter] = useState("");
    const wanted = filter.toLowerCase();
    const found = subscriptions.filter((row) => wanted === "" || plain(row).toLowerCase().includes(wanted));
    const simple = Object.entries(status).filter(([, value]) => typeof value !== "object");
    const lists = Object.entries(status).filter(([name, value]) => name !== "gauges" && Array.isArray(value));
    return (
        <>
            <section aria-label="Server">
                <h2>Server</h2>
                <dl class="facts">
                    {simple.map(([name, value]) => (
                        <div key={name}>
                            <dt>{title(name)}</dt>
                            <dd>{plain(value, name)}</dd>
                        </div>
                    ))}
                </dl>
            </section>
            <section aria-label="Gauges">
                <h2>Gauges</h2>
                <Gauges history={history} />
            </section>
            <section aria-label="Composite subscriptions">
                <h2>
                    Composite subscriptions <span class="quiet">{subscriptions.length}</span>
                </h2>
                <input
                    type="search"
                    aria-label="Filter subscriptions"
                    placeholder="Filter"
                    value={filter}
                    onInput={(event) => setFilter(event.currentTarget.value)}
                />
                <ValueTable label="Composite subscriptions" rows={found.slice(0, mostSubscriptions)} first={subscriptionColumns} />
                {found.length > mostSubscriptions && <p class="quiet">and {found.length - mostSubscriptions} more</p>}
            </section>
            <section aria-label="Sessions">
                <h2>
                    Sessions <span class="quiet">{sessions.length}</span>
                </h2>
                <ValueTable label="Sessions" rows={sessions} first={sessionColumns} />
            </section>
            {lists.map(([name, value]) => (
                <section key={name} aria-label={title(name)}>
                    <h2>{title(name)}</h2>
                    <ValueTable label={title(name)} rows={asRows(value as unknown[])} first={["id", "name"]} />
                </section>
            ))}
        </>
    );
}

function asRows(values: readonly unknown[]): Rows {
    return values.map((value) => (typeof value === "object" && value !== null ? (value as Rows[number]) : { name: value }));
}
