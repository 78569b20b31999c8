import { useEffect, useRef, useState } from "preact/hooks";
import type uPlot from "uplot";
import { type History, quoteOf } from "../book/history.ts";
import { useStore } from "../state/store.ts";
import type { PanelState } from "../state/view_state.ts";
import { chartOptions } from "./chart_options.ts";
import { useServices } from "./services.ts";

const refreshMs = 500;
const height = 168;

/** Mid price and spread of the selected panel, for as long as it has been open. Calm: two pictures a second. */
export function Chart({ panel }: { panel: PanelState }) {
    const services = useServices();
    const { theme, palette } = useStore(services.view);
    const frame = useRef<HTMLDivElement>(null);
    const [summary, setSummary] = useState("");
    useEffect(() => {
        let plot: uPlot | null = null;
        let drawn: { history: History; version: number } | null = null;
        let gone = false;
        const draw = () => {
            const feed = services.feeds.get(panel.id);
            if (feed === undefined || plot === null || document.hidden) return;
            const { history } = feed;
            if (drawn?.history === history && drawn.version === history.version) return;
            drawn = { history, version: history.version };
            plot.setData([history.times, history.mids, history.spreads]);
            setSummary(describe(services.feeds.get(panel.id)?.subscription?.book));
        };
        const resize = new ResizeObserver(([entry]) => plot?.setSize({ width: entry!.contentRect.width, height }));
        void import("uplot").then(({ default: Plot }) => {
            if (gone || frame.current === null) return;
            plot = new Plot(chartOptions(frame.current.clientWidth, height), [[], [], []], frame.current);
            resize.observe(frame.current);
            draw();
        });
        const dark = matchMedia("(prefers-color-scheme: dark)");
        // The colours are drawn, not styled: another theme is another picture.
        const recolour = () => plot?.redraw();
        dark.addEventListener("change", recolour);
        const timer = setInterval(draw, refreshMs);
        return () => {
            gone = true;
            clearInterval(timer);
            dark.removeEventListener("change", recolour);
            resize.disconnect();
            plot?.destroy();
        };
    }, [theme, palette, panel.id, panel.instrument]);
    return (
        <section class="chart" aria-label={`Chart of ${panel.instrument}`}>
            <header>
                <h2>{panel.instrument}</h2>
                <p class="readout">{summary}</p>
            </header>
            <div class="plot" ref={frame} role="img" aria-label={`mid price and spread of ${panel.instrument} over time`} />
        </section>
    );
}

function describe(book: Parameters<typeof quoteOf>[0] | undefined): string {
    const quote = book === undefined ? null : quoteOf(book);
    return quote === null ? "" : `mid ${quote.mid}   spread ${quote.spread}`;
}
