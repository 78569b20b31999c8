import type { Page } from "playwright-core";
import { describe, expect, test } from "vitest";
import { active, hashOf, ladderRows, openLadders, openPage, Tap } from "../harness.ts";

const [first, second] = active as [string, string];

async function openScope(page: Page): Promise<void> {
    await page.click(".panel.selected [aria-label^='Scope of']");
    await page.waitForSelector(".scope");
}

/** What the browser tells a page whose tab is covered by another. */
async function setHidden(page: Page, hidden: boolean): Promise<void> {
    await page.evaluate((state) => {
        Object.defineProperty(document, "visibilityState", { value: state ? "hidden" : "visible", configurable: true });
        Object.defineProperty(document, "hidden", { value: state, configurable: true });
        document.dispatchEvent(new Event("visibilitychange"));
    }, hidden);
}

describe("A panel is a scope", () => {
    test("asks for exactly what it shows", async () => {
        const tap = new Tap();
        await openLadders([first], { tap, scope: "7,250,bt" });
        expect(tap.sentOf("subscribe")).toMatchObject([{ instrument: first, depth: 7, interval_ms: 250, kinds: ["book", "trades"] }]);
    });

    test("changes its depth in place", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        await openScope(page);
        await page.getByLabel("depth").selectOption("10");
        await expect.poll(() => tap.sentOf("change")).toMatchObject([{ depth: 10 }]);
        await expect.poll(() => page.locator(".panel").getAttribute("aria-busy")).toBe("false");
        expect((await ladderRows(page)).length).toBe(10);
        expect(tap.sentOf("subscribe").length).toBe(1);
    });

    test("changes its interval, and updates come no faster", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        await openScope(page);
        await page.getByLabel("interval").selectOption("1000");
        await expect.poll(() => tap.sentOf("change")).toMatchObject([{ interval_ms: 1000 }]);
        // What was on its way still comes at the old pace, and a busy machine hands things over late: three long pauses in
        // a row are the new pace, since at the old one many updates come in each second.
        const times: number[] = [];
        tap.change = (message) => {
            if (message.type === "update") times.push(performance.now());
            return message;
        };
        const pauses = () => times.slice(1).map((time, index) => time - times[index]!);
        await expect.poll(() => pauses().slice(-3).filter((ms) => ms > 700).length, { timeout: 40_000 }).toBe(3);
    });

    test("does without trades", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        await openScope(page);
        await page.getByRole("checkbox", { name: "trades" }).uncheck();
        await expect.poll(() => tap.sentOf("change")).toMatchObject([{ kinds: ["book"] }]);
        await expect.poll(() => page.locator(".trades").count()).toBe(0);
    });

    test("cannot be a scope of nothing", async () => {
        const page = await openLadders([first], { scope: "5,0,b" });
        await openScope(page);
        await page.getByRole("checkbox", { name: "book" }).click();
        expect(await page.locator(".ladder").count()).toBe(1);
    });

    test("shares a subscription with a panel of the same depth", async () => {
        const tap = new Tap();
        const page = await openLadders([first, first], { tap });
        expect(tap.sentOf("subscribe").length).toBe(1);
        await page.locator(".panel [aria-label^='Close']").first().click();
        await expect.poll(() => page.locator(".panel").count()).toBe(1);
        expect(tap.sentOf("unsubscribe")).toEqual([]);
    });

    test("has a subscription of its own at another depth", async () => {
        const tap = new Tap();
        const page = await openPage({ tap, hash: `#panel=${first},5,0,b&panel=${first},10,0,b` });
        await expect.poll(() => page.locator('.panel[aria-busy="false"]').count()).toBe(2);
        expect(tap.sentOf("subscribe").map(({ depth }) => depth)).toEqual([5, 10]);
        expect([(await ladderRows(page, 0)).length, (await ladderRows(page, 1)).length]).toEqual([5, 10]);
    });

    test("takes a market's own depth", async () => {
        const page = await openPage({ hash: hashOf([first], "default,0,b") });
        await page.waitForSelector('.panel[aria-busy="false"]');
        await expect.poll(() => ladderRows(page).then((rows) => rows[0]![3])).not.toBe("");
    });

    test("ends with its panel", async () => {
        const tap = new Tap();
        const page = await openLadders([first, second], { tap });
        await page.click(`[aria-label="Close ${first}"]`);
        await expect.poll(() => tap.sentOf("unsubscribe")).toMatchObject([{ subscription: tap.sentOf("subscribe")[0]!.request }]);
    });

    test("is dropped while its panel is scrolled away, and taken up again", async () => {
        const tap = new Tap();
        const page = await openPage({ tap, width: 700, height: 500, hash: hashOf(active, "20,0,b", "&list=0&chart=0") });
        await page.waitForSelector('.panel[aria-busy="false"]');
        const early = tap.sentOf("subscribe").length;
        expect(early).toBeLessThan(active.length);
        await page.locator(".grid").evaluate((grid) => (grid.scrollTop = grid.scrollHeight));
        await expect.poll(() => tap.sentOf("unsubscribe").length).toBeGreaterThan(0);
        await page.locator(".grid").evaluate((grid) => (grid.scrollTop = 0));
        await expect.poll(() => tap.sentOf("subscribe").filter(({ instrument }) => instrument === first).length).toBe(2);
        await expect.poll(() => page.locator(".panel").first().getAttribute("aria-busy")).toBe("false");
    });

    test("is dropped while the tab is hidden", async () => {
        const tap = new Tap();
        const page = await openLadders([first, second], { tap });
        await setHidden(page, true);
        await expect.poll(() => tap.sentOf("unsubscribe").length).toBe(2);
        await setHidden(page, false);
        await expect.poll(() => tap.sentOf("subscribe").length).toBe(4);
        await expect.poll(() => page.locator('.panel[aria-busy="false"]').count()).toBe(2);
    });

    test("is dropped while another view is shown", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        await page.click("text=Operations");
        await expect.poll(() => tap.sentOf("unsubscribe").length).toBe(1);
    });
});
