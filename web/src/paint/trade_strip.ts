import { type Tape, timeOfDay } from "../book/tape.ts";
import { alignAtPoint, fractionDigits, padZeros } from "../book/decimal.ts";
import type { Trade } from "../protocol/messages.ts";

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
    #priceFraction = 0;
    #quantityFraction = 0;

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

    paint(tape: Tape): void {
        for (const trade of tape.trades.slice(0, rows)) {
            this.#priceFraction = Math.max(this.#priceFraction, fractionDigits(trade.price));
            this.#quantityFraction = Math.max(this.#quantityFraction, fractionDigits(trade.quantity));
        }
        this.#lines.forEach((line, index) => this.#paintLine(line, tape.trades[index]));
    }

    #paintLine(line: Line, trade: Trade | undefined): void {
        const texts =
            trade === undefined
                ? ["", "", "", ""]
                : [
                      timeOfDay(trade.exchange_time_ns),
                      padZeros(trade.price, this.#priceFraction),
                      alignAtPoint(trade.quantity, this.#quantityFraction),
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

export function writeLast(element: HTMLElement, trade: Trade | undefined): void {
    const mark = trade?.aggressor === "buyer" ? " ▲" : trade?.aggressor === "seller" ? " ▼" : "";
    const text = trade === undefined ? "" : `${trade.price}${mark}`;
    if (element.textContent !== text) element.textContent = text;
    element.dataset.aggressor = trade?.aggressor ?? "";
}
