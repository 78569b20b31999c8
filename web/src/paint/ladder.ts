import type { Book } from "../book/book.ts";
import { alignAtPoint, isZero, padZeros } from "../book/decimal.ts";
import type { Level } from "../protocol/messages.ts";
import { type Column, Columns, widthOf } from "./columns.ts";

/** One side of a row: cells that are made once, and what they show. */
interface Half {
    cells: Text[];
    element: HTMLElement;
    barStep: number;
    /** Undefined: anything may stand in the cells. */
    level: Level | null | undefined;
}

const cellNames = ["orders", "implied", "direct", "price"] as const;
const barSteps = 24;

function element(role: string, className: string, label = ""): HTMLElement {
    const result = document.createElement("div");
    result.className = className;
    result.setAttribute("role", role);
    if (label !== "") result.textContent = label;
    return result;
}

/** Columns may be narrower than their names: what is seen is short, what is read out is not. */
function makeTitle(name: string): HTMLElement {
    const short: Record<string, string> = { implied: "impl", orders: "ord" };
    const result = element("columnheader", `cell head ${name}`, short[name] ?? name);
    result.setAttribute("aria-label", name);
    return result;
}

/**
 * A ladder: rows of cells that stay where they are, and get another text where the book has another number. Best prices
 * meet in the middle of the first row; implied quantities stand outside, direct ones beside the price.
 */
export class Ladder {
    readonly root: HTMLElement;
    /** Characters that a row needs, without the column of orders. */
    characters = 0;
    #body: HTMLElement;
    #bids: Half[] = [];
    #asks: Half[] = [];
    #columns = new Columns();
    #epoch = 0;

    constructor(label: string, rows: number) {
        this.root = element("table", "ladder");
        this.rename(label);
        const head = element("rowgroup", "ladder-head");
        const titles = element("row", "ladder-row");
        for (const [side, names] of [
            ["bid-side", ["orders", "implied", "direct", "bid"]],
            ["ask-side", ["ask", "direct", "implied", "orders"]],
        ] as const) {
            const half = element("presentation", `half ${side}`);
            half.append(...names.map(makeTitle));
            titles.append(half);
        }
        head.append(titles);
        this.#body = element("rowgroup", "ladder-body");
        this.root.append(head, this.#body);
        this.setRows(rows);
        this.#setWidths();
    }

    /** Digits behind the point that prices are written with. */
    get priceFraction(): number {
        return this.#columns.price.fraction;
    }

    rename(label: string): void {
        this.root.setAttribute("aria-label", `order book of ${label}`);
    }

    setRows(rows: number): void {
        while (this.#bids.length < rows) this.#addRow();
        while (this.#bids.length > rows) {
            this.#bids.pop();
            this.#asks.pop();
            this.#body.lastElementChild?.remove();
        }
        this.root.setAttribute("aria-rowcount", String(rows + 1));
    }

    paint(book: Book): void {
        if (book.epoch !== this.#epoch) {
            // Prices begin anew: their digits may be fewer.
            this.#epoch = book.epoch;
            this.#columns = new Columns();
            this.#forget();
        }
        const rows = this.#bids.length;
        const grownBids = this.#columns.fit(book.bids, rows);
        const grownAsks = this.#columns.fit(book.asks, rows);
        if (grownBids || grownAsks) {
            this.#setWidths();
            this.#forget();
        }
        const scale = barSteps / Math.max(largest(book.bids, rows), largest(book.asks, rows), Number.MIN_VALUE);
        for (let i = 0; i < rows; i += 1) {
            this.#paintHalf(this.#bids[i]!, book.bids[i] ?? null, scale);
            this.#paintHalf(this.#asks[i]!, book.asks[i] ?? null, scale);
        }
    }

    #paintHalf(half: Half, level: Level | null, scale: number): void {
        const step = level === null ? 0 : Math.ceil(total(level) * scale);
        if (step !== half.barStep) {
            half.barStep = step;
            half.element.style.backgroundSize = `${(step * 100) / barSteps}% 100%`;
        }
        // Levels are replaced, never changed: the same object is the same numbers.
        if (level === half.level) return;
        const old = half.level;
        half.level = level;
        const { price, direct, implied } = this.#columns;
        if (level === null) {
            for (const cell of half.cells) cell.data = "";
            return;
        }
        if (old == null || old[0] !== level[0]) half.cells[3]!.data = fill(padZeros(level[0], price.fraction), price);
        if (old == null || old[1] !== level[1]) half.cells[2]!.data = quantity(level[1], direct);
        if (old == null || old[2] !== level[2]) half.cells[1]!.data = quantity(level[2], implied);
        if (old == null || old[3] !== level[3]) half.cells[0]!.data = level[3] === null ? "" : String(level[3]);
    }

    #addRow(): void {
        const row = element("row", "ladder-row");
        const bid = this.#makeHalf("bid-side");
        const ask = this.#makeHalf("ask-side");
        row.append(bid.element, ask.element);
        this.#body.append(row);
        this.#bids.push(bid);
        this.#asks.push(ask);
    }

    #makeHalf(side: string): Half {
        const half = element("presentation", `half ${side}`);
        const cells = cellNames.map((name) => {
            const text = document.createTextNode("");
            element("cell", `cell ${name}`).append(text);
            return text;
        });
        const inOrder = side === "bid-side" ? cells : cells.toReversed();
        half.append(...inOrder.map((text) => text.parentElement!));
        return { cells, element: half, barStep: 0, level: undefined };
    }

    #forget(): void {
        for (const half of [...this.#bids, ...this.#asks]) half.level = undefined;
    }

    #setWidths(): void {
        for (const name of ["price", "direct", "implied", "orders"] as const) {
            this.root.style.setProperty(`--${name}-width`, String(widthOf(this.#columns[name])));
        }
        const { price, direct, implied } = this.#columns;
        this.characters = 2 * (widthOf(price) + widthOf(direct) + widthOf(implied));
    }
}

/** Nothing at all is shown as nothing: what is there stands out. */
function quantity(text: string, column: Column): string {
    return isZero(text) ? "" : fill(alignAtPoint(text, column.fraction), column);
}

/** Every number of a column is as wide as the column: none of them moves when its digits do. */
function fill(text: string, column: Column): string {
    return text.padStart(widthOf(column));
}

/** Only for the length of a bar, which is in pixels. */
function total(level: Level): number {
    return Number(level[1]) + Number(level[2]);
}

function largest(levels: readonly Level[], count: number): number {
    let result = 0;
    const end = Math.min(levels.length, count);
    for (let i = 0; i < end; i += 1) result = Math.max(result, total(levels[i]!));
    return result;
}
