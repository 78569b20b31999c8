import { describe, expect, test } from "vitest";
import { active, emptyPage, openLadders, openPage, panelNames } from "../harness.ts";

describe("The search", () => {
    test("is reached with a slash from anywhere", async () => {
        const page = await openLadders([active[0]!]);
        await page.locator(".panel").focus();
        await page.keyboard.press("/");
        await expect.poll(() => page.evaluate(() => document.activeElement?.id)).toBe("search");
        expect(await page.inputValue("#search")).toBe("");
    });

    test("takes the first match with Enter, and its prices come", async () => {
        const page = await openPage({ hash: emptyPage });
        const [market, symbol] = active[1]!.split(/:(.*)/s);
        await page.waitForSelector(".row");
        await page.fill("#search", `${symbol} ${market}`);
        await page.keyboard.press("Enter");
        await page.waitForSelector('.panel[aria-busy="false"]');
        expect(await panelNames(page)).toEqual([active[1]]);
    });

    test("takes what is clicked, and marks what is shown", async () => {
        const page = await openPage({ hash: emptyPage });
        const row = page.locator(".row").nth(2);
        await row.click();
        await page.waitForSelector(".panel");
        await expect.poll(() => row.getAttribute("class")).toContain("shown");
        expect(await page.locator(".panel").count()).toBe(1);
    });

    test("lists every instrument of the server, and counts what matches", async () => {
        const page = await openPage({ hash: emptyPage });
        await expect.poll(() => page.innerText(".found")).toBe("47 of 47 instruments");
        await page.fill("#search", "perp");
        await expect.poll(() => page.innerText(".found")).toBe("2 of 47 instruments");
        await page.press("#search", "Escape");
        await expect.poll(() => page.innerText(".found")).toBe("47 of 47 instruments");
    });

    test("says so when nothing matches, and takes nothing then", async () => {
        const page = await openPage({ hash: emptyPage });
        await page.waitForSelector(".row");
        await page.fill("#search", "no such thing");
        await expect.poll(() => page.innerText(".found")).toBe("0 of 47 instruments");
        await page.keyboard.press("Enter");
        expect(await page.locator(".panel").count()).toBe(0);
    });

    test("goes through the matches with the arrow keys", async () => {
        const page = await openPage({ hash: emptyPage });
        await page.waitForSelector(".row");
        await page.focus("#search");
        for (const key of ["ArrowDown", "ArrowDown", "ArrowDown", "ArrowUp"]) await page.keyboard.press(key);
        const selected = page.locator('[role="option"][aria-selected="true"]');
        expect(await selected.getAttribute("aria-posinset")).toBe("3");
        expect(await page.getAttribute("#search", "aria-activedescendant")).toBe(await selected.getAttribute("id"));
    });
});
