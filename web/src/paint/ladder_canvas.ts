import { colours } from "./colours.ts";

/** One side of a row as it is to be drawn. Texts may end with blanks: those keep the points below each other. */
export interface Line {
    row: number;
    /** -1: bid, 1: ask. */
    side: -1 | 1;
    /** Length of the bar, from 0 to 1. */
    bar: number;
    price: string;
    direct: string;
    implied: string;
    orders: string;
}

/** Of the columns, in digits. */
export interface Widths {
    price: number;
    direct: number;
    implied: number;
    orders: number;
}

const rowHeight = 14;
const baseline = 11;
/** Pixels between two columns: as much as there is room for, within these. */
const smallestGap = 7;
const largestGap = 16;
const numbers = 'ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace';
const plainFont = `11px ${numbers}`;
const priceFont = `600 11px ${numbers}`;
const titleFont = '10px system-ui, "DejaVu Sans", sans-serif';

const resized = new Map<Element, (width: number, height: number) => void>();
const observer = new ResizeObserver((entries) => {
    for (const { target, contentRect } of entries) resized.get(target)?.(contentRect.width, contentRect.height);
});

/** Where the columns of one side end, in pixels. */
interface Ends {
    price: number;
    direct: number;
    implied: number;
    orders: number;
}

/**
 * The picture of a ladder. Rows are of one height and digits of one width, so nothing is ever measured or laid out: a
 * line that has changed is wiped and drawn again.
 */
export class LadderCanvas {
    readonly element = document.createElement("canvas");
    #context = this.element.getContext("2d", { alpha: false })!;
    #width = 0;
    #digit = 7;

    /** `onLost`: the size has changed, and the picture is gone. */
    constructor(private readonly onLost: () => void) {
        this.element.setAttribute("aria-hidden", "true");
        resized.set(this.element, (width, height) => this.#resize(width, height));
        observer.observe(this.element);
    }

    /** It has a size. */
    get isReady(): boolean {
        return this.#width > 0;
    }

    /** Whether columns of these widths stand side by side without touching each other. */
    hasRoomFor(widths: Widths): boolean {
        const columns = widths.orders > 0 ? 4 : 3;
        const digits = widths.price + widths.direct + widths.implied + widths.orders;
        return digits * this.#digit + columns * smallestGap <= this.#width / 2;
    }

    setRows(rows: number): void {
        this.element.style.height = `${rows * rowHeight}px`;
    }

    close(): void {
        observer.unobserve(this.element);
        resized.delete(this.element);
    }

    drawTitles(widths: Widths): void {
        const context = this.#context;
        const { surface, muted, bid, ask } = colours();
        context.fillStyle = surface;
        context.fillRect(0, 0, this.#width, rowHeight);
        context.font = titleFont;
        context.textAlign = "right";
        for (const side of [-1, 1] as const) {
            const ends = this.#ends(side, widths);
            context.fillStyle = side < 0 ? bid : ask;
            context.fillText(side < 0 ? "bid" : "ask", ends.price, baseline - 1);
            context.fillStyle = muted;
            context.fillText("direct", ends.direct, baseline - 1);
            // A column may be narrower than its name.
            context.fillText(widths.implied < 7 ? "impl" : "implied", ends.implied, baseline - 1);
            if (widths.orders > 0) context.fillText("ord", ends.orders, baseline - 1);
        }
        context.textAlign = "left";
    }

    /** In passes, since changing the font or the colour costs more than a short text. */
    draw(lines: readonly Line[], widths: Widths): void {
        const context = this.#context;
        const { surface, text, muted, bid, ask, bidTint, askTint } = colours();
        const half = this.#width / 2;
        const ends = { [-1]: this.#ends(-1, widths), [1]: this.#ends(1, widths) };
        context.fillStyle = surface;
        for (const { row, side } of lines) context.fillRect(side < 0 ? 0 : half, row * rowHeight, half, rowHeight);
        for (const { row, side, bar } of lines) {
            if (bar === 0) continue;
            context.fillStyle = side < 0 ? bidTint : askTint;
            const length = Math.round(bar * half);
            context.fillRect(side < 0 ? half - length : half, row * rowHeight, length, rowHeight);
        }
        context.font = plainFont;
        context.fillStyle = text;
        for (const line of lines) this.#write(line.direct, ends[line.side].direct, line.row);
        context.fillStyle = muted;
        for (const line of lines) {
            this.#write(line.implied, ends[line.side].implied, line.row);
            this.#write(line.orders, ends[line.side].orders, line.row);
        }
        context.font = priceFont;
        for (const side of [-1, 1] as const) {
            context.fillStyle = side < 0 ? bid : ask;
            for (const line of lines) if (line.side === side) this.#write(line.price, ends[side].price, line.row);
        }
    }

    /** Ends at `end`, with the blanks that it ends with. */
    #write(text: string, end: number, row: number): void {
        if (text === "") return;
        this.#context.fillText(text.trimEnd(), end - text.length * this.#digit, row * rowHeight + baseline);
    }

    /** Bids from the middle outwards, asks from the middle outwards: price, direct, implied, orders. */
    #ends(side: -1 | 1, widths: Widths): Ends {
        const middle = this.#width / 2;
        const gap = this.#gap(widths);
        const width = (digits: number) => digits * this.#digit + gap;
        const names = ["price", "direct", "implied", "orders"] as const;
        const ends: Ends = { price: 0, direct: 0, implied: 0, orders: 0 };
        let at = middle;
        for (const name of names) {
            // A bid's column ends where the one nearer to the middle begins.
            if (side < 0) ends[name] = at - gap / 2;
            at += side * width(widths[name]);
            if (side > 0) ends[name] = at - gap / 2;
        }
        return ends;
    }

    #gap(widths: Widths): number {
        const columns = widths.orders > 0 ? 4 : 3;
        const digits = widths.price + widths.direct + widths.implied + widths.orders;
        const room = (this.#width / 2 - digits * this.#digit) / columns;
        return Math.max(smallestGap, Math.min(largestGap, Math.floor(room)));
    }

    #resize(width: number, height: number): void {
        const scale = devicePixelRatio;
        this.#width = width;
        this.element.width = Math.round(width * scale);
        this.element.height = Math.round(height * scale);
        if (width === 0) return;
        const context = this.#context;
        context.scale(scale, scale);
        context.fillStyle = colours().surface;
        context.fillRect(0, 0, width, height);
        context.font = plainFont;
        this.#digit = context.measureText("0").width;
        this.onLost();
    }
}
