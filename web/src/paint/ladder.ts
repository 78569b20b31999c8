import type { Book } from "../book/book.ts";
import type { Level } from "../protocol/messages.ts";
import { Columns, priceText, quantityText, widthOf } from "./columns.ts";
import { LadderCanvas, type Line, type Widths } from "./ladder_canvas.ts";
import { LadderTable } from "./ladder_table.ts";

/** One side of a row: the level that is drawn, and how long its bar is. */
interface Half {
    barStep: number;
    /** Undefined: anything may stand there. */
    level: Level | null | undefined;
}

const barSteps = 24;

/**
 * A ladder: best prices meet in the middle of the first row; implied quantities stand outside, direct ones beside the
 * price. What is seen is drawn, since thousands of changing texts a second are too much for a browser's layout; what is
 * read out is a table beside it, which follows when it is told to (`describe`).
 */
export class Ladder {
    readonly root = document.createElement("div");
    /** The numbers need more room than they have. */
    isCrowded = false;
    /** The picture has lost its content (another size or theme): it is to be painted again. */
    onLost: () => void = () => undefined;
    #canvas: LadderCanvas;
    #table: LadderTable;
    #bids: Half[] = [];
    #asks: Half[] = [];
    #columns = new Columns();
    #epoch = 0;
    #drawsTitles = true;
    #showsOrders = false;

    constructor(label: string, rows: number) {
        this.root.className = "ladder";
        this.#canvas = new LadderCanvas(() => this.repaint());
        this.#table = new LadderTable(label);
        this.root.append(this.#canvas.element, this.#table.root);
        this.setRows(rows);
    }

    /** Digits behind the point that prices are written with. */
    get priceFraction(): number {
        return this.#columns.price.fraction;
    }

    rename(label: string): void {
        this.#table.rename(label);
    }

    showOrders(shown: boolean): void {
        if (shown === this.#showsOrders) return;
        this.#showsOrders = shown;
        this.#table.showOrders(shown);
        this.repaint();
    }

    setRows(rows: number): void {
        if (rows === this.#bids.length) return;
        const empty = (): Half => ({ barStep: 0, level: undefined });
        this.#bids = Array.from({ length: rows }, empty);
        this.#asks = Array.from({ length: rows }, empty);
        this.#table.setRows(rows);
        this.#canvas.setRows(rows + 1);
        this.repaint();
    }

    /** All of it anew, with the next painting. */
    repaint(): void {
        this.#forget();
        this.onLost();
    }

    paint(book: Book): void {
        if (!this.#canvas.isReady) return;
        if (book.epoch !== this.#epoch) {
            // Prices begin anew: their digits may be fewer.
            this.#epoch = book.epoch;
            this.#columns = new Columns();
            this.#forget();
        }
        const rows = this.#bids.length;
        const grownBids = this.#columns.fit(book.bids, rows);
        const grownAsks = this.#columns.fit(book.asks, rows);
        if (grownBids || grownAsks) this.#forget();
        if (this.#drawsTitles) {
            this.#drawsTitles = false;
            this.isCrowded = !this.#canvas.hasRoomFor(this.#widths());
            this.#canvas.drawTitles(this.#widths());
        }
        const scale = barSteps / Math.max(largest(book.bids, rows), largest(book.asks, rows), Number.MIN_VALUE);
        const lines: Line[] = [];
        for (let i = 0; i < rows; i += 1) {
            this.#note(lines, this.#bids[i]!, book.bids[i] ?? null, scale, i, -1);
            this.#note(lines, this.#asks[i]!, book.asks[i] ?? null, scale, i, 1);
        }
        if (lines.length > 0) this.#canvas.draw(lines, this.#widths());
    }

    /** Brings what is read out up to date. */
    describe(book: Book): void {
        this.#table.fill(book, this.#columns);
    }

    close(): void {
        this.#canvas.close();
    }

    /** Adds the line to what is to be drawn, if it differs. */
    #note(lines: Line[], half: Half, level: Level | null, scale: number, row: number, side: -1 | 1): void {
        const step = level === null ? 0 : Math.ceil(total(level) * scale);
        // Levels are replaced, never changed: the same object is the same numbers.
        if (step === half.barStep && level === half.level) return;
        half.barStep = step;
        half.level = level;
        const { price, direct, implied } = this.#columns;
        lines.push({
            row: row + 1,
            side,
            bar: step / barSteps,
            price: level === null ? "" : priceText(level[0], price),
            direct: level === null ? "" : quantityText(level[1], direct),
            implied: level === null ? "" : quantityText(level[2], implied),
            orders: level === null || level[3] === null || !this.#showsOrders ? "" : String(level[3]),
        });
    }

    #forget(): void {
        this.#drawsTitles = true;
        for (const half of this.#bids) half.level = undefined;
        for (const half of this.#asks) half.level = undefined;
    }

    #widths(): Widths {
        const { price, direct, implied, orders } = this.#columns;
        return {
            price: widthOf(price),
            direct: widthOf(direct),
            implied: widthOf(implied),
            orders: this.#showsOrders ? widthOf(orders) : 0,
        };
    }
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
