// A synthetic market: books that move at random, from a fixed seed.
import type { Level, Trade } from "../../src/protocol/messages.ts";

const levelsKept = 60;

export interface Instrument {
    market: string;
    symbol: string;
    fraction: number;
    quantityFraction: number;
    hasImplied: boolean;
}

/** Small, fast, and the same on every machine. */
export class Random {
    constructor(private state: number) {}

    next(): number {
        this.state = (Math.imul(this.state, 1664525) + 1013904223) >>> 0;
        return this.state / 4294967296;
    }

    below(limit: number): number {
        return Math.floor(this.next() * limit);
    }
}

interface Row {
    ticks: number;
    direct: number;
    implied: number;
    orders: number;
}

export class MovingBook {
    sequence = 1;
    epoch = 1;
    bids: Row[] = [];
    asks: Row[] = [];
    lastTicks: number;
    #random: Random;
    #trades = 0;

    constructor(
        readonly instrument: Instrument,
        seed: number,
    ) {
        this.#random = new Random(seed);
        const middle = 500 + this.#random.below(900_000);
        this.lastTicks = middle;
        for (let i = 0; i < levelsKept; i += 1) {
            this.bids.push(this.#row(middle - 1 - i));
            this.asks.push(this.#row(middle + 1 + i));
        }
    }

    /** One change of the book: mostly quantities near the top, now and then a better or worse best price. */
    step(): void {
        this.sequence += 1;
        const random = this.#random;
        const [side, direction] = random.below(2) === 0 ? [this.bids, -1] : [this.asks, 1];
        const dice = random.next();
        if (dice < 0.06) {
            side.shift();
            side.push(this.#row(side.at(-1)!.ticks + direction));
        } else if (dice < 0.12 && this.asks[0]!.ticks - this.bids[0]!.ticks > 1) {
            side.unshift(this.#row(side[0]!.ticks - direction));
            side.pop();
        } else {
            const index = Math.floor(random.next() ** 2 * 8);
            side[index] = this.#row(side[index]!.ticks);
        }
    }

    trade(): Trade {
        this.#trades += 1;
        const buyer = this.#random.below(2) === 0;
        this.lastTicks = (buyer ? this.asks : this.bids)[0]!.ticks;
        const now = `${Date.now()}000000`;
        return {
            price: decimal(this.lastTicks, this.instrument.fraction),
            quantity: decimal(1 + this.#random.below(5000), this.instrument.quantityFraction),
            aggressor: buyer ? "buyer" : "seller",
            exchange_time_ns: now,
            receive_time_ns: now,
            id: String(this.#trades),
        };
    }

    top(side: "bids" | "asks", depth: number): Level[] {
        const { fraction, quantityFraction } = this.instrument;
        return this[side]
            .slice(0, depth)
            .map((row) => [
                decimal(row.ticks, fraction),
                decimal(row.direct, quantityFraction),
                decimal(row.implied, quantityFraction),
                row.orders,
            ]);
    }

    #row(ticks: number): Row {
        const random = this.#random;
        const scale = 10 ** this.instrument.quantityFraction;
        const implied = this.instrument.hasImplied && random.below(3) === 0 ? (1 + random.below(20)) * scale : 0;
        const direct = 1 + Math.floor(random.next() ** 2 * 40 * scale);
        return { ticks, direct, implied, orders: 1 + random.below(12) };
    }
}

/** As a book spells it: no trailing zeros, no point without digits. */
export function decimal(units: number, fraction: number): string {
    if (fraction === 0) return String(units);
    const digits = String(Math.abs(units)).padStart(fraction + 1, "0");
    const text = `${digits.slice(0, -fraction)}.${digits.slice(-fraction)}`.replace(/\.?0+$/, "");
    return units < 0 ? `-${text}` : text;
}

const months = ["JAN", "FEB", "MAR", "APR", "MAY", "JUN", "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"];
const roots = ["GOLD", "SILVER", "COPPER", "CRUDE", "GAS", "WHEAT", "CORN", "SOYA", "SUGAR", "COFFEE", "COCOA", "COTTON"];

export function makeInstruments(count: number): Instrument[] {
    const result: Instrument[] = [];
    const crypto = ["BTC", "ETH", "SOL", "LTC", "XRP", "ADA", "DOT", "BCH"];
    for (const market of ["SPOT", "USDM"]) {
        for (const [index, name] of crypto.entries()) {
            result.push({ market, symbol: `${name}USDT`, fraction: index < 2 ? 2 : 4, quantityFraction: 3, hasImplied: market === "USDM" });
        }
    }
    for (let i = 0; result.length < count; i += 1) {
        const root = roots[i % roots.length]!;
        const month = months[Math.floor(i / roots.length) % 12]!;
        const year = 27 + (Math.floor(i / (roots.length * 12)) % 70);
        result.push({ market: "SIM", symbol: `${root}-${month}${year}`, fraction: 1, quantityFraction: 0, hasImplied: true });
    }
    return result;
}
