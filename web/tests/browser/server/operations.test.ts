import { describe, expect, test } from "vitest";
import { active, hashOf, openLadders, openPage } from "../harness.ts";

const [first] = active as [string];

describe("The operations view", () => {
    test("draws gauges over time", async () => {
        const page = await openPage({ hash: "#view=operations" });
        await page.waitForSelector(".gauges li");
        const points = () => page.locator(".gauges polyline").first().getAttribute("points");
        await expect.poll(async () => (await points())!.split(" ").length).toBeGreaterThanOrEqual(3);
    });

    test("shows composite subscriptions with who holds them", async () => {
        await openLadders([first]);
        const page = await openPage({ hash: "#view=operations" });
        const table = page.locator("section[aria-label='Composite subscriptions'] table");
        await expect.poll(() => table.innerText()).toContain(first);
        expect(await table.locator("th").allInnerTexts()).toContain("holders");
    });

    test("filters them", async () => {
        await openLadders(active.slice(0, 3));
        const page = await openPage({ hash: "#view=operations" });
        const rows = page.locator("section[aria-label='Composite subscriptions'] tbody tr");
        await expect.poll(() => rows.count()).toBeGreaterThanOrEqual(3);
        await page.fill('[aria-label="Filter subscriptions"]', first);
        await expect.poll(() => rows.allInnerTexts().then((texts) => texts.every((text) => text.includes(first)))).toBe(true);
    });

    test("shows sessions, this one among them", async () => {
        const page = await openPage({ hash: "#view=operations" });
        await page.waitForSelector("section[aria-label='Sessions'] td");
        const about = (await page.getAttribute(".connection", "title"))!;
        const number = /session (\d+)/.exec(about)![1]!;
        const numbers = await page.locator("section[aria-label='Sessions'] tbody tr td:first-child").allInnerTexts();
        expect(numbers).toContain(number);
    });

    test("is left behind with its requests", async () => {
        const asked: string[] = [];
        const page = await openPage({ hash: hashOf([first]) });
        page.on("request", (request) => asked.push(new URL(request.url()).pathname));
        await page.keyboard.press("2");
        await page.waitForSelector(".gauges");
        await page.keyboard.press("1");
        await page.waitForSelector(".panel");
        const count = asked.filter((path) => path.endsWith("status")).length;
        await new Promise((resolve) => setTimeout(resolve, 2500));
        expect(asked.filter((path) => path.endsWith("status")).length).toBe(count);
    });
});
