import { useStore } from "../state/store.ts";
import type { ConnectionState } from "../protocol/connection.ts";
import { pace } from "./measure.ts";
import { useServices } from "./services.ts";

const words: Record<ConnectionState, string> = {
    open: "live",
    connecting: "connecting",
    token: "no token",
    waiting: "offline",
};

/** How good the line is. Its places are fixed: numbers change, nothing moves. */
export function ConnectionBadge() {
    const { link } = useServices();
    const { state, why, hello } = useStore(link);
    const { updatesPerSecond, roundTripMs, paintLagMs, conflated, gaps, lostTrades } = useStore(pace);
    const about = hello === null ? why : `${hello.server} ${hello.version}, session ${hello.session}`;
    return (
        <div class="connection" data-state={state} title={about}>
            <span class="state" role="status">
                <i aria-hidden="true" />
                {words[state]}
            </span>
            <Figure name="updates/s" title="updates a second" value={String(updatesPerSecond)} width={6} />
            <Figure name="lag" title="to the server and back" value={milliseconds(roundTripMs)} width={6} />
            <Figure name="paint" title="from arrival to the screen, 99 of 100" value={milliseconds(paintLagMs)} width={6} />
            <Figure name="conflated" title="books that were left out for this page" value={String(conflated)} width={5} />
            {(gaps > 0 || lostTrades > 0) && (
                <Figure name="gaps" title={`${gaps} gaps in books, ${lostTrades} lost trades`} value={String(gaps + lostTrades)} width={3} />
            )}
        </div>
    );
}

function milliseconds(value: number | null): string {
    return value === null ? "–" : `${value < 10 ? value.toFixed(1) : Math.round(value)} ms`;
}

interface FigureProps {
    name: string;
    title: string;
    value: string;
    width: number;
}

function Figure({ name, title, value, width }: FigureProps) {
    return (
        <span class={`figure ${name.replace("/", "-")}`} title={title}>
            <b>{value.padStart(width)}</b> {name}
        </span>
    );
}
