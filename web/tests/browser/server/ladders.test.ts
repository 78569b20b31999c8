import type { Page } from "playwright-core";
import { describe, expect, test } from "vitest";
import { active, drawnRows, hashOf, ladderRows, openLadders, openPage, Tap } from "../harness.ts";

const [first, second] = active as [string, string];
const withImplied = "POLONIEX:BCH_BTC";
const silent = "POLONIEX:DYP_USDT";
const blank = (text: string | undefined) => (text === undefined || Number(text) === 0 ? "" : text);

interface BookMessage {
    bids: string[][];
    asks: string[][];
}

/**
 * A ladder that stands still at an image with all its levels. Whoever subscribes first may get one with fewer, and
 * what follows is kept back: then another page asks, while the one before keeps the book alive.
 */
async function openStandingStill(instrument: string, levels: number): Promise<{ page: Page; image: BookMessage }> {
    for (let attempt = 0; attempt < 10; ++attempt) {
        const images: BookMessage[] = [];
        const tap = new Tap();
        tap.change = (message) => {
            if (message.type === "update" || (message.type === "image" && images.length > 0)) return null;
            if (message.type === "image") images.push(message as unknown as BookMessage);
            return message;
        };
        const page = await openPage({ tap, hash: hashOf([instrument]) });
        await expect.poll(() => images.length).toBe(1);
        const image = images[0]!;
        if (image.bids.length === levels && image.asks.length === levels) return { page, image };
    }
    throw new Error(`no image of ${instrument} has had ${levels} levels on both sides`);
}

/** The sum of all layout shifts since the page was asked for, each with what has moved. */
function observeShifts(): void {
    const shifts: string[] = [];
    Object.assign(globalThis, { shifts, shiftSum: 0 });
    interface Shift extends PerformanceEntry {
        value: number;
        sources: { node: Node | null }[];
    }
    new PerformanceObserver((list) => {
        for (const { value, sources } of list.getEntries() as Shift[]) {
            (globalThis as unknown as { shiftSum: number }).shiftSum += value;
            const names = sources.map(({ node }) => (node instanceof Element ? node : node?.parentElement)?.className);
            shifts.push(`${value.toFixed(4)} ${names.join()}`);
        }
    }).observe({ type: "layout-shift", buffered: true });
}

describe("A ladder", () => {
    test("shows the book of the server, number for number", async () => {
        const { page, image } = await openStandingStill(first, 5);
        const { bids, asks } = image;
        await expect.poll(() => ladderRows(page).then((rows) => Number(rows[0]![3]))).toBe(Number(bids[0]![0]));
        for (const [index, row] of (await ladderRows(page)).entries()) {
            const [bid, ask] = [bids[index], asks[index]];
            expect([row[1], row[2], row[5], row[6]]).toEqual([blank(bid?.[2]), blank(bid?.[1]), blank(ask?.[1]), blank(ask?.[2])]);
            // Prices may have zeros more, and never another digit.
            expect(row[3]!.startsWith(bid?.[0] ?? "") && row[4]!.startsWith(ask?.[0] ?? "")).toBe(true);
        }
    });

    test("is read out as it is drawn", async () => {
        const tap = new Tap();
        const page = await openLadders([first, withImplied], { tap });
        await expect.poll(() => drawnRows(page).then((rows) => rows[5]?.length)).toBeGreaterThan(3);
        tap.freeze();
        for (const index of [0, 1]) {
            await expect
                .poll(async () => {
                    const [read, drawn] = [await ladderRows(page, index), await drawnRows(page, index)];
                    const texts = read.map((row) => row.slice(1, 7).filter(Boolean));
                    return JSON.stringify(drawn.slice(1)) === JSON.stringify(texts) ? "the same" : `drawn ${JSON.stringify(drawn.slice(1))}, read ${JSON.stringify(texts)}`;
                })
                .toBe("the same");
        }
    });

    test("moves with the server's updates", async () => {
        const page = await openLadders([first]);
        const before = JSON.stringify(await drawnRows(page));
        await expect.poll(() => drawnRows(page).then((rows) => JSON.stringify(rows)), { timeout: 20_000 }).not.toBe(before);
    });

    test("shows what other books imply, apart from what the venue has", async () => {
        const page = await openLadders([withImplied]);
        await expect.poll(async () => (await ladderRows(page)).some((row) => row[1] !== "" || row[6] !== ""), { timeout: 40_000 }).toBe(true);
        await expect.poll(async () => (await drawnRows(page))[0]).toEqual(expect.arrayContaining(["bid", "ask", "direct"]));
    });

    test("shows no implied quantity where there is none", async () => {
        const page = await openLadders([first]);
        expect((await ladderRows(page)).every((row) => row[1] === "" && row[6] === "")).toBe(true);
    });

    test("shows the recording's trades, with their own times", async () => {
        const page = await openLadders([first]);
        await expect.poll(() => page.locator(".trades .time").first().innerText(), { timeout: 40_000 }).toMatch(/^23:5[45]:\d\d\.\d{3}$/);
        expect(await page.locator(".trades .aggressor").first().innerText()).toMatch(/▲ buyer|▼ seller/);
        expect(await page.innerText(".last")).toMatch(/^\d+\.\d [▲▼]$/);
    });

    test("scrolls within its panel when it is deep, by keyboard too", async () => {
        const page = await openLadders([first], { scope: "100,0,b" });
        expect((await ladderRows(page)).length).toBe(100);
        const frame = page.locator(".ladder-frame");
        await frame.focus();
        await page.keyboard.press("End");
        await expect.poll(() => frame.evaluate((element) => element.scrollTop)).toBeGreaterThan(500);
    });

    test("wears a badge when its recording falls silent, and none while it does not", async () => {
        const page = await openLadders([silent, first]);
        await expect.poll(() => page.locator(".panel").first().locator(".badge.stale").allInnerTexts(), { timeout: 50_000 }).toEqual(["stale direct"]);
        expect(await page.locator(".panel").nth(1).locator(".badge.stale").count()).toBe(0);
    });

    test("is painted anew when the colours change", async () => {
        const page = await openLadders([first], { more: "&theme=light" });
        const ladder = page.locator(".ladder canvas");
        await page.waitForFunction(() => document.querySelector(".last")?.textContent !== "", null, { timeout: 40_000 });
        const light = await ladder.screenshot();
        await page.selectOption('[aria-label="Theme"]', "dark");
        // Its titles are painted with the theme, whatever the prices do.
        const corner = () =>
            ladder.evaluate((canvas: HTMLCanvasElement) => {
                const copy = new OffscreenCanvas(1, 1).getContext("2d")!;
                copy.drawImage(canvas, 1, 1, 1, 1, 0, 0, 1, 1);
                return [...copy.getImageData(0, 0, 1, 1).data.slice(0, 3)];
            });
        await expect.poll(corner).toEqual([0x15, 0x1b, 0x22]);
        expect((await ladder.screenshot()).equals(light)).toBe(false);
    });

    test("fills its panel when the window grows, sharply", async () => {
        const page = await openLadders([first], { width: 800 });
        await page.setViewportSize({ width: 500, height: 700 });
        const canvas = page.locator(".ladder canvas");
        await expect
            .poll(() => canvas.evaluate((one: HTMLCanvasElement) => Math.abs(one.width - one.clientWidth * devicePixelRatio)))
            .toBeLessThanOrEqual(1);
        await expect.poll(() => drawnRows(page).then((rows) => rows[1]?.length)).toBeGreaterThan(1);
    });
});

describe("Nothing moves", () => {
    test("while prices come, nor while the page is loaded", async () => {
        const page = await openPage({ hash: hashOf(active.slice(0, 6)), prepare: (one) => one.addInitScript(observeShifts) });
        await page.waitForFunction(() => document.querySelectorAll('.panel[aria-busy="false"]').length >= 4);
        const updates = () => page.evaluate(() => globalThis.priceServerFigures!().updates);
        const begin = await updates();
        await expect.poll(updates, { timeout: 40_000 }).toBeGreaterThan(begin + 300);
        const { shiftSum, shifts } = await page.evaluate(() => {
            const { shiftSum, shifts } = globalThis as unknown as { shiftSum: number; shifts: string[] };
            return { shiftSum, shifts };
        });
        expect(shiftSum, shifts.join("\n")).toBeLessThan(0.01);
    });
});

describe("The chart", () => {
    test("draws, and says mid price and spread", async () => {
        const page = await openLadders([first]);
        await expect.poll(() => page.innerText(".readout")).toMatch(/^mid \d+\.\d+\s+spread \d+\.\d$/);
        const drawn = () =>
            page.locator(".plot canvas").evaluate((canvas: HTMLCanvasElement) => {
                const { data } = canvas.getContext("2d")!.getImageData(0, 0, canvas.width, canvas.height);
                return data.some((value) => value !== 0);
            });
        await expect.poll(drawn).toBe(true);
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

describe("A link that nobody can follow", () => {
    test("says why, in the server's words", async () => {
        const page = await openPage({ hash: hashOf(["NOWHERE:NOTHING"]) });
        await page.waitForSelector(".failure");
        expect((await page.innerText(".failure p")).length).toBeGreaterThan(5);
        await expect.poll(() => page.innerText(".toasts")).toContain("NOWHERE:NOTHING");
    });
});
