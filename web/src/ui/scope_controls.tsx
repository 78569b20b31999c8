import { useEffect, useRef } from "preact/hooks";
import type { Depth, Kind } from "../protocol/messages.ts";
import type { PanelState } from "../state/view_state.ts";
import { useServices } from "./services.ts";

export const depths: readonly Depth[] = [1, 3, 5, 10, 20, 50, 100, "default", "max"];
export const intervals: readonly number[] = [0, 50, 100, 250, 500, 1000, 5000];
const kinds: readonly Kind[] = ["book", "trades", "fields"];

export function intervalText(ms: number): string {
    if (ms === 0) return "every change";
    return ms < 1000 ? `${ms} ms` : `${ms / 1000} s`;
}

/** What a panel asks the server for. */
export function ScopeControls({ panel, onClose }: { panel: PanelState; onClose: () => void }) {
    const services = useServices();
    const first = useRef<HTMLSelectElement>(null);
    const change = (what: Partial<PanelState>) => services.changePanel(panel.id, what);
    const limit = services.link.value.hello?.limits.depth ?? 1000;
    const offered = depths.filter((depth) => typeof depth !== "number" || depth <= limit);
    useEffect(() => first.current?.focus(), []);
    const toggle = (kind: Kind) => {
        const chosen = kinds.filter((one) => (one === kind) !== panel.kinds.includes(one));
        // A panel of nothing would be no scope.
        if (chosen.length > 0) change({ kinds: chosen });
    };
    return (
        <div
            class="scope"
            role="group"
            aria-label={`Scope of ${panel.instrument}`}
            onKeyDown={(event) => {
                if (event.key !== "Escape") return;
                event.stopPropagation();
                onClose();
                document.querySelector<HTMLElement>(`[data-panel="${panel.id}"] .icon`)?.focus();
            }}
        >
            <label>
                depth
                <select
                    ref={first}
                    value={String(panel.depth)}
                    onChange={({ currentTarget: { value } }) =>
                        change({ depth: value === "default" || value === "max" ? value : Number(value) })
                    }
                >
                    {withCurrent(offered, panel.depth).map((depth) => (
                        <option key={depth} value={String(depth)}>
                            {depth}
                        </option>
                    ))}
                </select>
            </label>
            <label>
                interval
                <select
                    value={String(panel.intervalMs)}
                    onChange={({ currentTarget: { value } }) => change({ intervalMs: Number(value) })}
                >
                    {withCurrent(intervals, panel.intervalMs).map((ms) => (
                        <option key={ms} value={String(ms)}>
                            {intervalText(ms)}
                        </option>
                    ))}
                </select>
            </label>
            {kinds.map((kind) => (
                <label key={kind}>
                    <input type="checkbox" checked={panel.kinds.includes(kind)} onChange={() => toggle(kind)} />
                    {kind}
                </label>
            ))}
            <label>
                <input type="checkbox" checked={panel.orders} onChange={() => change({ orders: !panel.orders })} />
                orders
            </label>
        </div>
    );
}

function withCurrent<T>(offered: readonly T[], current: T): readonly T[] {
    return offered.includes(current) ? offered : [current, ...offered];
}
