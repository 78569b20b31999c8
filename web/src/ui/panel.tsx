import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import type { PanelState } from "../state/view_state.ts";
import { openExplain } from "./explain.tsx";
import { CloseIcon, ScopeIcon } from "./icons.tsx";
import { Mount } from "./mount.tsx";
import { PanelFeed } from "./panel_feed.ts";
import { ScopeControls } from "./scope_controls.tsx";
import { useServices } from "./services.ts";
import { observeVisibility } from "./visibility.ts";

/** Deeper books scroll within their panel. */
const rowsInFrame = 20;

export interface PanelProps {
    panel: PanelState;
    selected: boolean;
    onSelect: () => void;
}

/** One ladder with its trades: drawn anew only when something about it changes, not when prices do. */
export function Panel({ panel, selected, onSelect }: PanelProps) {
    const services = useServices();
    const section = useRef<HTMLElement>(null);
    const [, redraw] = useState(0);
    const [scopeOpen, setScopeOpen] = useState(false);
    const feed = useMemo(
        () => new PanelFeed(services.client, services.scheduler, panel, () => redraw((count) => count + 1)),
        [],
    );
    useEffect(() => {
        services.feeds.set(panel.id, feed);
        const stop = observeVisibility(section.current!, (visible) => feed.setVisible(visible));
        return () => {
            stop();
            feed.close();
            services.feeds.delete(panel.id);
        };
    }, []);
    useEffect(() => feed.setPanel(panel), [panel]);
    const renamed = feed.subscription?.instrument;
    useEffect(() => {
        if (renamed === undefined || renamed === panel.instrument || !feed.isHeld) return;
        services.toasts.show(`${panel.instrument} is called ${renamed} now`, renamed);
        feed.ladder.rename(renamed);
        services.changePanel(panel.id, { instrument: renamed });
    }, [renamed]);

    const subscription = feed.subscription;
    const mayScroll = typeof panel.depth !== "number" || panel.depth > rowsInFrame;
    const waiting = !feed.isHeld || subscription === null || subscription.book.needsImage;
    return (
        <section
            ref={section}
            class={`panel${selected ? " selected" : ""}${waiting ? " waiting" : ""}${feed.isWide ? " wide" : ""}`}
            aria-label={panel.instrument}
            aria-busy={waiting}
            data-panel={panel.id}
            data-instrument={panel.instrument}
            tabIndex={selected ? 0 : -1}
            onFocusCapture={() => !selected && onSelect()}
            onPointerDown={() => !selected && onSelect()}
        >
            <header>
                <h2 title={panel.instrument}>
                    <span class="market">{panel.instrument.slice(0, panel.instrument.indexOf(":") + 1)}</span>
                    {panel.instrument.slice(panel.instrument.indexOf(":") + 1)}
                </h2>
                <Badges feed={feed} />
                <Mount node={feed.last} />
                <button
                    type="button"
                    class="icon"
                    tabIndex={selected ? 0 : -1}
                    aria-expanded={scopeOpen}
                    aria-label={`Scope of ${panel.instrument}`}
                    title="Scope"
                    onClick={() => setScopeOpen(!scopeOpen)}
                >
                    <ScopeIcon />
                </button>
                <button
                    type="button"
                    class="icon"
                    tabIndex={selected ? 0 : -1}
                    aria-label={`Close ${panel.instrument}`}
                    title="Close"
                    onClick={() => services.closePanel(panel.id)}
                >
                    <CloseIcon />
                </button>
            </header>
            {scopeOpen && <ScopeControls panel={panel} onClose={() => setScopeOpen(false)} />}
            {subscription?.state === "failed" && (
                <div class="failure">
                    <p>{subscription.why}</p>
                    <button type="button" onClick={() => services.client.retry(subscription)}>
                        Try again
                    </button>
                    <button type="button" onClick={() => openExplain(services, panel.instrument)}>
                        Why?
                    </button>
                </div>
            )}
            {panel.kinds.includes("book") && (
                <Mount node={feed.ladder.root} class="ladder-frame" {...(mayScroll ? { scrolls: panel.instrument } : {})} />
            )}
            {panel.kinds.includes("trades") && <Mount node={feed.strip.root} />}
            {panel.kinds.includes("fields") && <Mount node={feed.fields} />}
        </section>
    );
}

function Badges({ feed }: { feed: PanelFeed }) {
    const subscription = feed.subscription;
    if (subscription === null) return null;
    const { stale, missing } = subscription.book;
    const refused = [...subscription.refused.keys()];
    return (
        <span class="badges">
            {stale.length > 0 && (
                <span class="badge stale" title={`silent for too long: ${stale.join(", ")}`}>
                    stale {stale.join(" ")}
                </span>
            )}
            {missing.length > 0 && (
                <span class="badge missing" title={`not delivered yet: ${missing.join(", ")}`}>
                    no {missing.join(" ")}
                </span>
            )}
            {refused.length > 0 && (
                <span class="badge missing" title={[...subscription.refused].map((pair) => pair.join(": ")).join("\n")}>
                    refused {refused.join(" ")}
                </span>
            )}
        </span>
    );
}
