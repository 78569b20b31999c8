import type { Level } from "../protocol/messages.ts";
import { alignAtPoint, fractionDigits, isZero, padZeros, wholeDigits } from "../book/decimal.ts";

export interface Column {
    /** Characters before the point. */
    whole: number;
    /** Digits behind it. */
    fraction: number;
}

/** The name of a column needs room as well. */
const narrowest = 4;

export function widthOf(column: Column): number {
    return Math.max(narrowest, column.whole + (column.fraction > 0 ? column.fraction + 1 : 0));
}

export function priceText(text: string, column: Column): string {
    return padZeros(text, column.fraction);
}

/** Nothing at all is shown as nothing: what is there stands out. Points stand below each other. */
export function quantityText(text: string, column: Column): string {
    return isZero(text) ? "" : alignAtPoint(text, column.fraction);
}

/**
 * How wide the columns of a ladder are, in digits. They only grow: numbers that come and go do not move the others.
 */
export class Columns {
    readonly price: Column = { whole: 1, fraction: 0 };
    readonly direct: Column = { whole: 1, fraction: 0 };
    readonly implied: Column = { whole: 1, fraction: 0 };
    readonly orders: Column = { whole: 1, fraction: 0 };

    /** True: a column has grown. */
    fit(levels: readonly Level[], count: number): boolean {
        let grown = false;
        const end = Math.min(levels.length, count);
        for (let i = 0; i < end; i += 1) {
            const level = levels[i]!;
            // Not `||`: every column is to be looked at.
            grown = grow(this.price, level[0]) || grown;
            grown = grow(this.direct, level[1]) || grown;
            if (!isZero(level[2])) grown = grow(this.implied, level[2]) || grown;
            if (level[3] !== null) grown = grow(this.orders, String(level[3])) || grown;
        }
        return grown;
    }
}

function grow(column: Column, text: string): boolean {
    const whole = wholeDigits(text);
    const fraction = fractionDigits(text);
    if (whole <= column.whole && fraction <= column.fraction) return false;
    column.whole = Math.max(column.whole, whole);
    column.fraction = Math.max(column.fraction, fraction);
    return true;
}
