import type uPlot from "uplot";

function colour(name: string): string {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

const font = '10px ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace';

function axis(scale: string, side: 1 | 3, size: number): uPlot.Axis {
    return {
        scale,
        side,
        size,
        font,
        gap: 4,
        stroke: () => colour("--muted"),
        grid: { show: side === 3, stroke: () => colour("--line"), width: 1 },
        ticks: { show: false },
        values: writeSplits,
    };
}

function midRange(low: number | null, high: number | null): [number, number] {
    if (low === null || high === null) return [0, 1];
    const range = high - low || Math.abs(high) * 1e-4 || 1;
    return [low - range * 0.6, high + range * 0.1];
}

/** As many digits as tell the lines of the grid apart. */
function writeSplits(plot: uPlot, splits: number[]): string[] {
    // Nothing is known yet: a scale would be made up.
    if (plot.data[0].length === 0) return splits.map(() => "");
    const step = splits.length > 1 ? splits[1]! - splits[0]! : 1;
    const digits = Math.max(0, Math.min(10, Math.ceil(-Math.log10(step) - 1e-9)));
    return splits.map((split) => split.toFixed(digits));
}

/** Colours are looked up whenever it draws. Nothing is animated. */
export function chartOptions(width: number, height: number): uPlot.Options {
    return {
        width,
        height,
        legend: { show: false },
        cursor: { show: true, points: { show: false }, drag: { x: false, y: false } },
        padding: [6, 4, 0, 0],
        // The spread has the lower third for itself.
        scales: {
            x: { time: true },
            mid: { range: (_plot, low, high) => midRange(low, high) },
            spread: { range: (_plot, _low, high) => [0, (high || 1) * 3.5] },
        },
        axes: [
            {
                font,
                size: 20,
                gap: 2,
                space: 90,
                incrs: [1, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600],
                stroke: () => colour("--muted"),
                grid: { show: false },
                ticks: { show: false },
                values: (_plot, times) => times.map((time) => new Date(time * 1000).toISOString().slice(11, 19)),
            },
            axis("mid", 3, 76),
            axis("spread", 1, 60),
        ],
        series: [
            {},
            { label: "mid", scale: "mid", stroke: () => colour("--bid"), width: 1.25, points: { show: false } },
            {
                label: "spread",
                scale: "spread",
                stroke: () => colour("--ask"),
                width: 1,
                points: { show: false },
                fill: () => colour("--ask-tint"),
            },
        ],
    };
}
