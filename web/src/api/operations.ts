// What the operations view reads. Everything that is not named here is shown as it comes.

export interface GaugeReading {
    name: string;
    labels?: Record<string, string>;
    value: number;
}

export interface Status {
    gauges?: GaugeReading[] | Record<string, number>;
    [name: string]: unknown;
}

export type Rows = Record<string, unknown>[];

/** Gauges with a name of one line each, however the server lists them. */
export function readGauges(status: Status): Map<string, number> {
    const gauges = status.gauges ?? [];
    const result = new Map<string, number>();
    if (!Array.isArray(gauges)) {
        for (const [name, value] of Object.entries(gauges)) if (typeof value === "number") result.set(name, value);
        return result;
    }
    for (const { name, labels, value } of gauges) {
        const texts = Object.entries(labels ?? {}).map(([label, text]) => `${label}=${text}`);
        result.set(texts.length > 0 ? `${name} ${texts.join(" ")}` : name, value);
    }
    return result;
}

/** The rows of an answer: itself, or the member of that name. */
export function readRows(answer: unknown, name: string): Rows {
    const rows = Array.isArray(answer) ? answer : (answer as Record<string, unknown> | null)?.[name];
    return Array.isArray(rows) ? (rows as Rows) : [];
}

/** Values over time, all on one clock: at most `capacity` readings are kept. */
export class GaugeHistory {
    readonly series = new Map<string, number[]>();

    constructor(readonly capacity = 150) {}

    add(readings: ReadonlyMap<string, number>): void {
        for (const name of this.series.keys()) if (!readings.has(name)) this.series.delete(name);
        for (const [name, value] of readings) {
            const values = this.series.get(name) ?? [];
            values.push(value);
            if (values.length > this.capacity) values.shift();
            this.series.set(name, values);
        }
    }
}

/** The points of a line through `values`, newest at the right end, in a box of the given size. */
export function sparkline(values: readonly number[], capacity: number, width: number, height: number): string {
    const low = Math.min(...values);
    const high = Math.max(...values);
    const range = high - low;
    const step = width / (capacity - 1);
    const begin = width - (values.length - 1) * step;
    return values
        .map((value, index) => {
            const y = range === 0 ? height / 2 : height - 1 - ((value - low) / range) * (height - 2);
            return `${(begin + index * step).toFixed(1)},${y.toFixed(1)}`;
        })
        .join(" ");
}
