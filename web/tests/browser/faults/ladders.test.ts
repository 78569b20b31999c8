import type { Page } from "playwright-core";
import { describe, expect, test } from "vitest";
import { active, drawnRows, ladderRows, openLadders, Tap } from "../harness.ts";

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

    test("has the points of a column below each other", async () => {
        const { page } = await openWith({
            bids: [["100", "1", "12.5", 1], ["99.5", "0.125", "3", 1], ["99.25", "1000.5", "0.75", 1], ["9", "77.25", "1.5", 1]],
        });
        await expect.poll(() => drawnRows(page).then((rows) => rows[1])).toEqual(["12.5", "1", "100.00"]);
        const points = await page.locator(".ladder canvas").evaluate((canvas: HTMLCanvasElement) => {
            const digit = 11 * 0.602;
            const texts = globalThis.drawnTexts(canvas).filter(({ text }) => text.includes("."));
            return texts.map(({ text, x }) => Math.round((x + text.indexOf(".") * digit) * 2) / 2);
        });
        // Three columns: implied quantities, direct ones, prices.
        expect(points.length).toBe(10);
        expect(new Set(points).size).toBe(3);
    });

    test("keeps direct and implied quantities apart", async () => {
        const { page } = await openWith({ bids: [["10", "3", "7", 2]], asks: [["11", "0", "5", null]] });
        await expect.poll(() => ladderRows(page).then((rows) => rows[0])).toEqual(["2", "7", "3", "10", "11", "", "5", ""]);
        const titles = page.locator(".ladder-head [role=columnheader]");
        expect(await titles.evaluateAll((cells) => cells.map((cell) => cell.textContent))).toEqual([
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
        await expect.poll(() => drawnRows(page).then((rows) => rows[1])).toEqual(["1", "10"]);
        await page.click('[aria-label^="Scope of"]');
        await page.getByRole("checkbox", { name: "orders" }).check();
        await expect.poll(() => drawnRows(page).then((rows) => rows[1])).toEqual(["42", "1", "10"]);
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
});
