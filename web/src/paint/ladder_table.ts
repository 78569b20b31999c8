import type { Book } from "../book/book.ts";
import type { Level } from "../protocol/messages.ts";
import { type Columns, priceText, quantityText } from "./columns.ts";

const names = ["orders", "implied", "direct", "price"] as const;

function element(role: string, className: string, label = ""): HTMLElement {
    const result = document.createElement("div");
    result.className = className;
    result.setAttribute("role", role);
    if (label !== "") result.textContent = label;
    return result;
}

/** What a screen reader finds where the picture of a ladder is: the same book as a table. Nobody sees it. */
export class LadderTable {
    readonly root = element("table", "ladder-table");
    #body = element("rowgroup", "ladder-body");
    #titles = element("row", "ladder-row");
    #rows: Text[][] = [];

    constructor(label: string) {
        this.rename(label);
        const head = element("rowgroup", "ladder-head");
        head.append(this.#titles);
        for (const name of ["orders", "implied", "direct", "bid", "ask", "direct", "implied", "orders"]) {
            this.#titles.append(element("columnheader", `cell ${name}`, name));
        }
        this.root.append(head, this.#body);
        this.showOrders(false);
    }

    rename(label: string): void {
        this.root.setAttribute("aria-label", `order book of ${label}`);
    }

    showOrders(shown: boolean): void {
        this.root.classList.toggle("with-orders", shown);
    }

    setRows(rows: number): void {
        while (this.#rows.length < rows) this.#addRow();
        while (this.#rows.length > rows) {
            this.#rows.pop();
            this.#body.lastElementChild?.remove();
        }
        this.root.setAttribute("aria-rowcount", String(rows + 1));
    }

    fill(book: Book, columns: Columns): void {
        this.#rows.forEach((cells, index) => {
            fillHalf(cells.slice(0, 4), book.bids[index], columns);
            fillHalf(cells.slice(4).reverse(), book.asks[index], columns);
        });
    }

    #addRow(): void {
        const row = element("row", "ladder-row");
        const cells = [...names, ...names.toReversed()].map((name) => {
            const text = document.createTextNode("");
            const cell = element("cell", `cell ${name}`);
            cell.append(text);
            row.append(cell);
            return text;
        });
        this.#body.append(row);
        this.#rows.push(cells);
    }
}

function fillHalf(cells: readonly Text[], level: Level | undefined, { price, direct, implied }: Columns): void {
    const texts =
        level === undefined
            ? ["", "", "", ""]
            : [
                  level[3] === null ? "" : String(level[3]),
                  quantityText(level[2], implied).trim(),
                  quantityText(level[1], direct).trim(),
                  priceText(level[0], price),
              ];
    texts.forEach((text, index) => {
        if (cells[index]!.data !== text) cells[index]!.data = text;
    });
}
