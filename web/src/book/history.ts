import type { Book } from "./book.ts";
import { middle, subtract } from "./decimal.ts";

/**
 * Mid price and spread over time, for the chart: at most one point in `intervalMs`, the newest `capacity` of them.
 * A chart is drawn in pixels, so these are numbers; what is written beside it comes from `quote`.
 */
export class History {
    readonly times: number[] = [];
    readonly mids: (number | null)[] = [];
    readonly spreads: (number | null)[] = [];
    version = 0;

    constructor(
        readonly intervalMs = 500,
        readonly capacity = 1200,
    ) {}

    sample(book: Book, nowMs: number): boolean {
        const last = this.times.at(-1);
        if (last !== undefined && nowMs - last * 1000 < this.intervalMs) return false;
        const quote = quoteOf(book);
        this.times.push(nowMs / 1000);
        this.mids.push(quote === null ? null : Number(quote.mid));
        this.spreads.push(quote === null ? null : Number(quote.spread));
        if (this.times.length > this.capacity) {
            // In blocks: shifting a long array for each point would be work for nothing.
            const surplus = Math.ceil(this.capacity / 8);
            this.times.splice(0, surplus);
            this.mids.splice(0, surplus);
            this.spreads.splice(0, surplus);
        }
        this.version += 1;
        return true;
    }
}

export interface Quote {
    mid: string;
    spread: string;
}

/** Exact, or null where a side is empty. */
export function quoteOf(book: Book): Quote | null {
    const bid = book.bids[0];
    const ask = book.asks[0];
    if (bid === undefined || ask === undefined) return null;
    return { mid: middle(bid[0], ask[0]), spread: subtract(ask[0], bid[0]) };
}
