import { gzipSync } from "node:zlib";
import { describe, expect, test } from "vitest";
import { active, base, emptyPage, hashOf, openLadders, openPage, panelNames, Tap } from "../harness.ts";

const [first, second, third] = active as [string, string, string];

describe("The page", () => {
    test("comes under a policy that allows nothing but itself", async () => {
        const policy = (await fetch(base)).headers.get("content-security-policy") ?? "";
        for (const part of ["default-src 'none'", "script-src 'self'", "style-src 'self'", "connect-src 'self'"]) expect(policy).toContain(part);
        expect(policy).not.toContain("unsafe");
    });

    test("is under 60 KB gzipped, everything together", async () => {
        const sizes: number[] = [];
        const page = await openPage({
            hash: hashOf([first]),
            prepare: (one) => {
                one.on("response", (response) => {
                    if (/\/$|\.(html|js|css|svg)$/.test(new URL(response.url()).pathname)) {
                        void response.body().then((body) => sizes.push(gzipSync(body).length), () => undefined);
                    }
                });
                return Promise.resolve();
            },
        });
        await page.waitForSelector(".plot canvas");
        await page.click("text=Operations");
        await page.waitForSelector(".gauges");
        await expect.poll(() => sizes.length).toBeGreaterThanOrEqual(5);
        expect(sizes.reduce((sum, size) => sum + size, 0)).toBeLessThan(60 * 1024);
    });

    test("says what to do when nothing is shown", async () => {
        const page = await openPage({ hash: emptyPage });
        expect(await page.innerText(".empty")).toContain("Press");
    });

    test("shows what a link says", async () => {
        const page = await openPage({ hash: hashOf([first, second], "5,0,b", "&theme=dark&palette=teal-rose&selected=1&list=0") });
        await page.waitForSelector(".panel");
        expect(await panelNames(page)).toEqual([first, second]);
        expect(await page.getAttribute("html", "data-theme")).toBe("dark");
        expect(await page.getAttribute("html", "data-palette")).toBe("teal-rose");
        expect(await page.getAttribute(".panel.selected", "data-instrument")).toBe(second);
        expect(await page.locator(".instruments").count()).toBe(0);
    });

    test("is as it was left when it is opened without a link", async () => {
        const page = await openLadders([first, second]);
        await page.selectOption('[aria-label="Colours"]', "green-red");
        await expect.poll(() => page.url()).toContain("green-red");
        await page.goto("about:blank");
        await page.goto(base);
        await page.waitForSelector(".panel");
        expect(await panelNames(page)).toEqual([first, second]);
        expect(await page.getAttribute("html", "data-palette")).toBe("green-red");
    });

    test("follows an address that is changed by hand", async () => {
        const page = await openLadders([first]);
        await page.evaluate((hash) => (location.hash = hash), hashOf([second, third]));
        await expect.poll(() => panelNames(page)).toEqual([second, third]);
    });

    test("does not break at an address of nonsense", async () => {
        const page = await openPage({ hash: "#view=kitchen&panel=%%%&panel=A&theme=7" });
        await page.waitForSelector(".empty");
    });

    test("follows the system from light to dark, unless told otherwise", async () => {
        const page = await openPage({ hash: emptyPage });
        const back = () => page.evaluate(() => getComputedStyle(document.documentElement).backgroundColor);
        const light = await back();
        await page.emulateMedia({ colorScheme: "dark" });
        await expect.poll(back).not.toBe(light);
        await page.selectOption('[aria-label="Theme"]', "light");
        await expect.poll(back).toBe(light);
    });

    test.each(["blue-orange", "teal-rose", "green-red"])("has bids and asks of different colours in %s", async (palette) => {
        const page = await openLadders([first], { more: `&palette=${palette}` });
        const style = () => page.evaluate(() => ["--bid", "--ask"].map((name) => getComputedStyle(document.documentElement).getPropertyValue(name)));
        const [bid, ask] = await style();
        expect(bid).not.toBe(ask);
    });
});

describe("With the keyboard alone, one", () => {
    test("skips to the prices first", async () => {
        const page = await openLadders([first]);
        await page.keyboard.press("Tab");
        expect(await page.evaluate(() => document.activeElement?.className)).toBe("skip");
        await page.keyboard.press("Enter");
        await expect.poll(() => page.evaluate(() => document.activeElement?.getAttribute("data-instrument"))).toBe(first);
    });

    test("goes from panel to panel", async () => {
        const page = await openLadders([first, second, third]);
        const focused = () => page.evaluate(() => document.activeElement?.getAttribute("data-instrument"));
        await page.locator(".panel").first().focus();
        await page.keyboard.press("ArrowRight");
        await expect.poll(focused).toBe(second);
        await page.keyboard.press("ArrowRight");
        await expect.poll(focused).toBe(third);
        await page.keyboard.press("ArrowLeft");
        await expect.poll(focused).toBe(second);
    });

    test("goes down a row of panels", async () => {
        const page = await openLadders(active.slice(0, 6), { more: "&chart=0" });
        await page.locator(".panel").first().focus();
        await page.keyboard.press("ArrowDown");
        await expect.poll(() => page.evaluate(() => document.activeElement!.getBoundingClientRect().top > 100)).toBe(true);
    });

    test("moves a panel", async () => {
        const page = await openLadders([first, second, third]);
        await page.locator(".panel").first().focus();
        await page.keyboard.press("Alt+ArrowRight");
        await expect.poll(() => panelNames(page)).toEqual([second, first, third]);
    });

    test("closes a panel, and stands on the next one", async () => {
        const page = await openLadders([first, second]);
        await page.locator(".panel").first().focus();
        await page.keyboard.press("Delete");
        await expect.poll(() => panelNames(page)).toEqual([second]);
        await expect.poll(() => page.evaluate(() => document.activeElement?.getAttribute("data-instrument"))).toBe(second);
    });

    test("has more and fewer levels", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        await page.keyboard.press("+");
        await expect.poll(() => tap.sentOf("change").at(-1)).toMatchObject({ depth: 10 });
        await page.waitForSelector('.panel[aria-busy="false"]');
        await page.keyboard.press("-");
        await expect.poll(() => tap.sentOf("change").at(-1)).toMatchObject({ depth: 5 });
    });

    test("opens the help, and is back where one was", async () => {
        const page = await openLadders([first]);
        await page.locator(".panel").focus();
        await page.keyboard.press("?");
        await page.waitForSelector("dialog[open]");
        expect(await page.innerText("dialog[open]")).toContain("search instruments");
        await page.keyboard.press("Escape");
        await expect.poll(() => page.locator("dialog[open]").count()).toBe(0);
        await expect.poll(() => page.evaluate(() => document.activeElement?.getAttribute("data-instrument"))).toBe(first);
    });

    test("leaves the scope with Escape, without closing anything else", async () => {
        const page = await openLadders([first]);
        await page.locator(".panel [aria-label^='Scope of']").press("Enter");
        await page.waitForSelector(".scope");
        await page.keyboard.press("Escape");
        await expect.poll(() => page.locator(".scope").count()).toBe(0);
        expect(await page.locator(".panel").count()).toBe(1);
    });

    test("goes to the operations and back", async () => {
        const page = await openLadders([first]);
        await page.keyboard.press("2");
        await page.waitForSelector(".operations");
        await page.keyboard.press("1");
        await page.waitForSelector(".panel");
    });
});

describe("A screen reader", () => {
    test("hears the prices when asked, and only then", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        expect(await page.locator(".ladder").evaluate((ladder) => ladder.closest("[aria-live]"))).toBeNull();
        await page.locator(".panel").focus();
        await page.keyboard.press("s");
        await expect.poll(() => page.textContent('.unseen[role="status"]')).toMatch(new RegExp(`${first}; bid .*quantity.*; ask .*spread`));
    });

    test("meets a table with rows, headers and a name", async () => {
        const page = await openLadders([first]);
        const table = page.getByRole("table", { name: `order book of ${first}` });
        expect(await table.getByRole("row").count()).toBe(6);
        expect(await table.getByRole("columnheader", { name: "direct" }).count()).toBe(2);
    });
});
