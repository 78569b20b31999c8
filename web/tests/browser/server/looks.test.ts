import type { Page } from "playwright-core";
import { describe, expect, test } from "vitest";
import { axeFindings } from "../axe.ts";
import { active, emptyPage, hashOf, openLadders, openPage } from "../harness.ts";
import { screenshots } from "../needs.ts";

const [first] = active as [string];

describe("axe finds nothing", () => {
    test("on a first visit", async () => {
        const page = await openPage();
        await page.waitForSelector(".hint");
        expect(await axeFindings(page)).toEqual([]);
    });

    test("on the empty page", async () => {
        const page = await openPage({ hash: emptyPage });
        await page.waitForSelector(".row");
        expect(await axeFindings(page)).toEqual([]);
    });

    test("with ladders and a chart, light", async () => {
        const page = await openLadders(active.slice(0, 4));
        expect(await axeFindings(page)).toEqual([]);
    });

    test("with ladders and a chart, dark, in the other colours", async () => {
        const page = await openLadders(active.slice(0, 4), { dark: true, more: "&palette=teal-rose" });
        expect(await axeFindings(page)).toEqual([]);
    });

    test("with scope controls and a deep book", async () => {
        const page = await openLadders([first], { scope: "50,0,bt" });
        await page.click('[aria-label^="Scope of"]');
        await page.waitForSelector(".scope");
        expect(await axeFindings(page)).toEqual([]);
    });

    test("in the operations view", async () => {
        const page = await openPage({ hash: "#view=operations" });
        await page.waitForSelector(".table-frame");
        expect(await axeFindings(page)).toEqual([]);
    });

    test("in the help", async () => {
        const page = await openLadders([first]);
        await page.keyboard.press("?");
        await page.waitForSelector("dialog[open]");
        expect(await axeFindings(page)).toEqual([]);
    });

    test("on a narrow screen, dark", async () => {
        const page = await openLadders([first], { width: 390, height: 844, dark: true });
        expect(await axeFindings(page)).toEqual([]);
    });
});

const sizes = [
    [1280, 800],
    [1920, 1080],
    [390, 844],
] as const;

const fits = (page: Page) => page.evaluate(() => document.documentElement.scrollWidth <= innerWidth);
/** A few points for the chart. */
const charted = (page: Page) => expect.poll(() => page.innerText(".readout")).toMatch(/mid/);

describe.each(sizes)("At %i by %i", (width, height) => {
    describe.each(["light", "dark"] as const)("%s", (theme) => {
        const view = { width, height, dark: theme === "dark" };
        const picture = (page: Page, name: string) => page.screenshot({ path: `${screenshots}${name}-${width}x${height}-${theme}.png` });

        test("ladders fit", async () => {
            const page = await openPage({ ...view, hash: hashOf(active, "5,0,bt") });
            await page.waitForSelector('.panel[aria-busy="false"]');
            if (width > 700) await charted(page);
            const begin = await page.evaluate(() => globalThis.priceServerFigures!().updates);
            await expect.poll(() => page.evaluate(() => globalThis.priceServerFigures!().updates)).toBeGreaterThan(begin + 60);
            expect(await fits(page)).toBe(true);
            await picture(page, "ladders");
        });

        test("operations fit", async () => {
            await openLadders(active.slice(0, 3));
            const page = await openPage({ ...view, hash: "#view=operations" });
            await expect.poll(() => page.innerText(".operations")).toContain(first);
            expect(await fits(page)).toBe(true);
            await picture(page, "operations");
        });

        test("a first visit, search, scope controls and help fit", async () => {
            const page = await openPage(view);
            await page.waitForSelector('.panel[aria-busy="false"]');
            await picture(page, "first-visit");
            await page.fill("#search", "usd");
            await picture(page, "search");
            await page.locator('[aria-label^="Scope of"]').first().click();
            await page.waitForSelector(".scope");
            expect(await fits(page)).toBe(true);
            await picture(page, "scope");
            await page.locator(".panel").first().focus();
            await page.keyboard.press("?");
            await page.waitForSelector("dialog[open]");
            await picture(page, "help");
            const box = (await page.locator("dialog[open]").boundingBox())!;
            expect(box.x >= 0 && box.x + box.width <= width && box.y >= 0 && box.y + box.height <= height).toBe(true);
        });
    });
});
