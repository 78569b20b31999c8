import { type GaugeHistory, sparkline } from "../api/operations.ts";

const width = 240;
const height = 24;

/** Each gauge with its value, and a line of how it came there. */
export function Gauges({ history }: { history: GaugeHistory }) {
    if (history.series.size === 0) return <p class="quiet">none</p>;
    return (
        <ul class="gauges">
            {[...history.series].map(([name, values]) => (
                <li key={name}>
                    <span class="name" title={name}>
                        {name}
                    </span>
                    <b>{write(values.at(-1)!)}</b>
                    <svg
                        viewBox={`0 0 ${width} ${height}`}
                        preserveAspectRatio="none"
                        role="img"
                        aria-label={`${name}: from ${Math.min(...values)} to ${Math.max(...values)}`}
                    >
                        <polyline points={sparkline(values, history.capacity, width, height)} />
                    </svg>
                </li>
            ))}
        </ul>
    );
}

function write(value: number): string {
    return Number.isInteger(value) ? String(value) : value.toPrecision(5);
}
