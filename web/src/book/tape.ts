import type { Trade } from "../protocol/messages.ts";

const kept = 50;

/** The last trades of one instrument, newest first; shared by all subscriptions of the instrument. */
export class Tape {
    readonly trades: Trade[] = [];
    version = 0;
    /** Trades that the server had to drop, since the beginning. */
    lost = 0;

    get last(): Trade | undefined {
        return this.trades[0];
    }

    /** Trades come in the venue's order. One that is known by its id (two subscriptions bring it) counts once. */
    add(trades: readonly Trade[]): void {
        for (const trade of trades) {
            if (trade.id !== null && this.trades.some((known) => known.id === trade.id)) continue;
            this.trades.unshift(trade);
        }
        if (this.trades.length > kept) this.trades.length = kept;
        this.version += 1;
    }

    lose(count: number): void {
        this.lost += count;
        this.version += 1;
    }
}

/** The time of day in UTC, to the millisecond, of nanoseconds since 1970: `"23:54:14.697"`. */
export function timeOfDay(ns: string | null): string {
    if (ns === null || !/^\d+$/.test(ns)) return "            ";
    const milliseconds = Number(BigInt(ns) / 1_000_000n);
    return new Date(milliseconds).toISOString().slice(11, 23);
}
