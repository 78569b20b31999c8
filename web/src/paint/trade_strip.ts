import { type Tape, timeOfDay } from "../book/tape.ts";
import { alignAtPoint, padZeros } from "../book/decimal.ts";
import type { Level, Trade } from "../protocol/messages.ts";
import { Columns, widthOf } from "./columns.ts";

const rows = 4;

interface Line {
    item: HTMLElement;
    cells: Text[];
    trade: Trade | undefined;
}

/** The last trades, newest first: a fixed number of lines. */
export class TradeStrip {
    readonly root = document.createElement("ol");
    #lines: Line[] = [];
    #columns = new Columns();

    constructor() {
        this.root.className = "trades";
        for (let i = 0; i < rows; i += 1) {
            const item = document.createElement("li");
            const cells = ["time", "price", "quantity", "aggressor"].map((name) => {
                const cell = document.createElement("span");
                cell.className = name;
                const text = document.createTextNode("");
                cell.append(text);
                item.append(cell);
                return text;
            });
            this.root.append(item);
            this.#lines.push({ item, cells, trade: undefined });
        }
    }

    /** `fraction`: digits behind the point that prices have at least, as in the ladder above. */
    paint(tape: Tape, fraction: number): void {
        // Columns of trades are those of a book: price and quantity, which only grow.
        const numbers = tape.trades.slice(0, rows).map(({ price, quantity }): Level => [price, quantity, "0", null]);
        this.#columns.fit(numbers, rows);
        this.#columns.price.fraction = Math.max(this.#columns.price.fraction, fraction);
        this.#lines.forEach((line, index) => this.#paintLine(line, tape.trades[index]));
    }

    #paintLine(line: Line, trade: Trade | undefined): void {
        const { price, direct } = this.#columns;
        const texts =
            trade === undefined
                ? [line === this.#lines[0] ? "no trades yet" : "", "", "", ""]
                : [
                      timeOfDay(trade.exchange_time_ns),
                      padZeros(trade.price, price.fraction).padStart(widthOf(price)),
                      alignAtPoint(trade.quantity, direct.fraction).padStart(widthOf(direct)),
                      trade.aggressor === null ? "" : aggressorText(trade.aggressor),
                  ];
        texts.forEach((text, index) => {
            const cell = line.cells[index]!;
            if (cell.data !== text) cell.data = text;
        });
        if (line.trade !== trade) line.item.dataset.aggressor = trade?.aggressor ?? "";
        line.trade = trade;
    }
}

/** Never by colour alone. */
function aggressorText(aggressor: "buyer" | "seller"): string {
    return aggressor === "buyer" ? "▲ buyer" : "▼ seller";
}

/** `fraction` is what the ladder's prices have: the two stand in the same panel. */
export function writeLast(element: HTMLElement, trade: Trade | undefined, fraction: number): void {
    const mark = trade?.aggressor === "buyer" ? " ▲" : trade?.aggressor === "seller" ? " ▼" : "";
    const text = trade === undefined ? "" : `${padZeros(trade.price, fraction)}${mark}`;
    if (element.textContent !== text) element.textContent = text;
    element.dataset.aggressor = trade?.aggressor ?? "";
}
