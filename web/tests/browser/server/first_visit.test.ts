import { describe, expect, test } from "vitest";
import { active, base, hashOf, openPage, panelNames } from "../harness.ts";

const [first] = active as [string];

describe("A first visit", () => {
    test("shows four instruments of different markets, with prices, and how to go on", async () => {
        const page = await openPage();
        await expect.poll(() => page.locator('.panel[aria-busy="false"]').count()).toBe(4);
        expect(new Set((await panelNames(page)).map((name) => name.split(":")[0])).size).toBe(4);
        expect(await page.innerText(".hint")).toMatch(/\/ adds others/);
    });

    test("shows what fits on a small screen", async () => {
        const page = await openPage({ width: 390, height: 844 });
        await expect.poll(() => page.locator('.panel[aria-busy="false"]').count()).toBe(3);
        expect(await page.locator(".hint").isVisible()).toBe(true);
    });

    test("says no more how to go on once one has gone on", async () => {
        const page = await openPage();
        await page.waitForSelector(".hint");
        await page.fill("#search", first.replace(":", " "));
        await page.keyboard.press("Enter");
        await expect.poll(() => page.locator(".hint").count()).toBe(0);
        expect(await panelNames(page)).toContain(first);
    });

    test("does not come again to who has closed everything", async () => {
        const page = await openPage();
        await page.waitForSelector(".hint");
        while ((await page.locator(".panel").count()) > 0) await page.locator('.panel [aria-label^="Close"]').first().click();
        await page.waitForSelector(".empty kbd");
        await page.goto("about:blank");
        await page.goto(base);
        await page.waitForSelector(".empty kbd");
        expect(await page.locator(".panel").count()).toBe(0);
    });

    test("is none with a link", async () => {
        const page = await openPage({ hash: hashOf([first]) });
        await page.waitForSelector('.panel[aria-busy="false"]');
        expect(await panelNames(page)).toEqual([first]);
        expect(await page.locator(".hint").count()).toBe(0);
    });
});
