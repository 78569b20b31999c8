import type { Page } from "playwright-core";
import { describe, expect, test } from "vitest";
import { active, ladderRows, openLadders, Tap } from "./harness.ts";

const [first, second] = active as [string, string];

/** A ladder whose book is what the test says. */
async function openWith(image: object, scope = "5,0,bt"): Promise<{ page: Page; tap: Tap }> {
    const tap = new Tap();
    const page = await openLadders([first], { tap, scope });
    tap.freeze();
    say(tap, image);
    return { page, tap };
}

let sequence = 0;

function say(tap: Tap, change: object): void {
    sequence += 1;
    tap.say({
        type: "image",
        instrument: first,
        depth: 5,
        epoch: 900 + sequence,
        sequence,
        exchange_time_ns: "1723161266013000000",
        receive_time_ns: "1723161264742613784",
        bids: [],
        asks: [],
        missing: [],
        stale: [],
        ...change,
    });
}

describe("A ladder", () => {
    test("shows the book of the server, number for number", async () => {
        const tap = new Tap();
        tap.change = (message) => (message.type === "update" ? null : message);
        const page = await openLadders([first], { tap });
        const { bids, asks } = tap.image(first) as unknown as { bids: string[][]; asks: string[][] };
        await expect.poll(() => ladderRows(page).then((rows) => Number(rows[0]![3]))).toBe(Number(bids[0]![0]));
        const blank = (text: string | undefined) => (text === undefined || Number(text) === 0 ? "" : text);
        for (const [index, row] of (await ladderRows(page)).entries()) {
            const [bid, ask] = [bids[index], asks[index]];
            expect([row[1], row[2], row[5], row[6]]).toEqual([blank(bid?.[2]), blank(bid?.[1]), blank(ask?.[1]), blank(ask?.[2])]);
            // Prices may have zeros more, and never another digit.
            expect(row[3]!.startsWith(bid?.[0] ?? "") && row[4]!.startsWith(ask?.[0] ?? "")).toBe(true);
        }
    });

    test("moves with the server's updates", async () => {
        const page = await openLadders([first]);
        const before = JSON.stringify(await ladderRows(page));
        await expect.poll(() => ladderRows(page).then((rows) => JSON.stringify(rows)), { timeout: 20_000 }).not.toBe(before);
    });

    test("has best prices in the first row, and worse ones below", async () => {
        const { page } = await openWith({
            bids: [["10", "1", "0", 1], ["9.5", "1", "0", 1], ["-1", "1", "0", 1]],
            asks: [["10.5", "1", "0", 1], ["11", "1", "0", 1]],
        });
        await expect.poll(() => ladderRows(page).then((rows) => rows.map((row) => [row[3], row[4]]))).toEqual([
            ["10.0", "10.5"],
            ["9.5", "11.0"],
            ["-1.0", ""],
            ["", ""],
            ["", ""],
        ]);
    });

    test("keeps direct and implied quantities apart", async () => {
        const { page } = await openWith({ bids: [["10", "3", "7", 2]], asks: [["11", "0", "5", null]] });
        await expect.poll(() => ladderRows(page).then((rows) => rows[0])).toEqual(["2", "7", "3", "10", "11", "", "5", ""]);
        const titles = page.locator(".ladder-head [role=columnheader]");
        expect(await titles.evaluateAll((cells) => cells.map((cell) => cell.getAttribute("aria-label")))).toEqual([
            "orders", "implied", "direct", "bid", "ask", "direct", "implied", "orders",
        ]);
    });

    test("shows numbers that no floating point number can hold", async () => {
        const price = "9007199254740993.000000001";
        const quantity = "123456789012345678.000000000000000001";
        const { page } = await openWith({ bids: [[price, quantity, "0", null]] });
        await expect.poll(() => ladderRows(page).then((rows) => rows[0]!.slice(2, 4))).toEqual([quantity, price]);
        await expect.poll(() => page.locator(".panel.wide").count()).toBe(1);
    });

    test("has the points of a column below each other", async () => {
        const { page } = await openWith({
            bids: [["100", "1", "12.5", 1], ["99.5", "0.125", "3", 1], ["99.25", "1000.5", "0.75", 1], ["9", "77.25", "1.5", 1]],
        });
        await expect.poll(() => ladderRows(page).then((rows) => rows[0]![3])).toBe("100.00");
        const positions = await page.locator(".ladder-body .bid-side").evaluateAll((halves) => {
            const result: Record<string, number[]> = { implied: [], direct: [], price: [] };
            for (const half of halves) {
                for (const name of Object.keys(result)) {
                    const text = half.querySelector(`.${name}`)!.firstChild as Text;
                    const at = text.data.indexOf(".");
                    if (at < 0) continue;
                    const range = document.createRange();
                    range.setStart(text, at);
                    range.setEnd(text, at + 1);
                    result[name]!.push(range.getBoundingClientRect().x);
                }
            }
            return result;
        });
        for (const column of Object.values(positions)) {
            expect(column.length).toBeGreaterThan(1);
            expect(Math.max(...column) - Math.min(...column)).toBeLessThan(0.5);
        }
    });

    test("stays where it is while prices come", async () => {
        const page = await openLadders(active.slice(0, 8), { more: "&list=1" });
        const shift = await page.evaluate(async () => {
            interface Shift {
                value: number;
                sources: { node: Node | null }[];
            }
            const moved: [number, string][] = [];
            new PerformanceObserver((list) => {
                for (const { value, sources } of list.getEntries() as unknown as Shift[]) {
                    const names = sources.map(({ node }) => (node instanceof Element ? node : node?.parentElement)?.className);
                    moved.push([value, names.join()]);
                }
            }).observe({ type: "layout-shift" });
            await new Promise((resolve) => setTimeout(resolve, 4000));
            return moved;
        });
        // Columns may grow by a digit; a panel or a row that moves is far above that.
        const total = shift.reduce((sum, [value]) => sum + value, 0);
        expect(total, JSON.stringify(shift)).toBeLessThan(0.001);
    });

    test("wears a badge while a component is stale, and no longer", async () => {
        const { page, tap } = await openWith({ stale: ["direct"] });
        await expect.poll(() => page.locator(".badge.stale").allInnerTexts()).toEqual(["stale direct"]);
        say(tap, {});
        await expect.poll(() => page.locator(".badge").count()).toBe(0);
    });

    test("says which component has not delivered", async () => {
        const { page } = await openWith({ missing: ["implied"] });
        await expect.poll(() => page.locator(".badge.missing").allInnerTexts()).toEqual(["no implied"]);
    });

    test("shows the last trade and who began it, not by colour alone", async () => {
        const { page, tap } = await openWith({});
        const trade = { price: "11.5", quantity: "3", aggressor: "buyer", exchange_time_ns: "1723161265969000000", receive_time_ns: null, id: "x1" };
        tap.say({ type: "trades", instrument: first, trades: [trade, { ...trade, price: "11.25", aggressor: "seller", id: "x2" }] });
        await expect.poll(() => page.innerText(".last")).toBe("11.25 ▼");
        const lines = await page.locator(".trades li").evaluateAll((items) => items.slice(0, 2).map((item) => [...item.children].map((cell) => cell.textContent?.trim())));
        expect(lines).toEqual([
            ["23:54:25.969", "11.25", "3", "▼ seller"],
            ["23:54:25.969", "11.50", "3", "▲ buyer"],
        ]);
    });

    test("shows the numbers of orders when asked", async () => {
        const { page } = await openWith({ bids: [["10", "1", "0", 42]] });
        const cell = page.locator(".ladder-body .orders").first();
        await expect.poll(() => cell.textContent()).toBe("42");
        expect(await cell.isVisible()).toBe(false);
        await page.click('[aria-label^="Scope of"]');
        await page.getByRole("checkbox", { name: "orders" }).check();
        await expect.poll(() => cell.isVisible()).toBe(true);
    });

    test("shows custom fields", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap, scope: "5,0,bf" });
        tap.say({ type: "fields", instrument: first, prices: { 7: 9811.3 }, quantities: { 12: 4 }, times: {} });
        await expect.poll(() => page.textContent(".fields")).toContain("12: 4");
    });

    test("is emptied when the book is", async () => {
        const { page, tap } = await openWith({ bids: [["10", "1", "0", 1]] });
        await expect.poll(() => ladderRows(page).then((rows) => rows[0]![3])).toBe("10");
        say(tap, {});
        await expect.poll(() => ladderRows(page).then((rows) => rows.flat().join(""))).toBe("");
    });
});

describe("The chart", () => {
    test("draws, and says mid price and spread exactly", async () => {
        const tap = new Tap();
        const page = await openLadders([first, second], { tap });
        await page.waitForSelector(".plot canvas");
        tap.freeze();
        say(tap, { bids: [["61828.57", "1", "0", 1]], asks: [["61828.58", "1", "0", 1]] });
        // The sentence follows with the next point of the chart.
        await expect
            .poll(() => {
                say(tap, { bids: [["61828.57", "1", "0", 1]], asks: [["61828.58", "1", "0", 1]] });
                return page.innerText(".readout");
            })
            .toMatch(/^mid 61828\.575\s+spread 0\.01$/);
        const drawn = await page.locator(".plot canvas").evaluate((canvas: HTMLCanvasElement) => {
            const { data } = canvas.getContext("2d")!.getImageData(0, 0, canvas.width, canvas.height);
            return data.some((value) => value !== 0);
        });
        expect(drawn).toBe(true);
    });

    test("is about the selected panel", async () => {
        const page = await openLadders([first, second]);
        await page.locator(".panel").nth(1).click();
        await expect.poll(() => page.innerText(".chart h2")).toBe(second);
    });

    test("is put away with a key", async () => {
        const page = await openLadders([first]);
        await page.waitForSelector(".chart");
        await page.keyboard.press("c");
        await expect.poll(() => page.locator(".chart").count()).toBe(0);
    });
});
