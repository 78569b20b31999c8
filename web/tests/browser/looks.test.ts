import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import type { Page } from "playwright-core";
import { describe, expect, test } from "vitest";
import { active, artefacts, hashOf, openLadders, openPage, Tap } from "./harness.ts";

const axeSource = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");
const [first] = active as [string];

/** What axe finds, each with where it is. */
async function findings(page: Page): Promise<string[]> {
    await page.evaluate(axeSource);
    return page.evaluate(async () => {
        interface Axe {
            run(): Promise<{ violations: { id: string; nodes: { target: string[]; failureSummary: string }[] }[] }>;
        }
        const { violations } = await (window as unknown as { axe: Axe }).axe.run();
        return violations.flatMap(({ id, nodes }) => nodes.slice(0, 3).map((node) => `${id}: ${node.target.join(" ")} ${node.failureSummary}`));
    });
}

describe("axe finds nothing", () => {
    test("on the empty page", async () => {
        const page = await openPage();
        await page.waitForSelector(".row");
        expect(await findings(page)).toEqual([]);
    });

    test("with ladders and a chart, light", async () => {
        const page = await openLadders(active.slice(0, 4));
        expect(await findings(page)).toEqual([]);
    });

    test("with ladders and a chart, dark, in the other colours", async () => {
        const page = await openLadders(active.slice(0, 4), { dark: true, more: "&palette=teal-rose" });
        expect(await findings(page)).toEqual([]);
    });

    test("with scope controls, badges, a deep book and a message", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap, scope: "50,0,btf" });
        tap.change = (message) => (message.type === "update" ? { ...message, stale: ["direct"], missing: ["implied"] } : message);
        await page.waitForSelector(".badge.stale", { timeout: 20_000 });
        tap.say({ type: "error", request: null, code: "bad_value", where: "depth", message: "a whole number expected" });
        await page.click('[aria-label^="Scope of"]');
        await page.waitForSelector(".toast");
        await page.waitForFunction(() => document.getAnimations().length === 0);
        expect(await findings(page)).toEqual([]);
    });

    test("in the operations view", async () => {
        const page = await openPage({ hash: "#view=operations" });
        await page.waitForSelector(".table-frame");
        expect(await findings(page)).toEqual([]);
    });

    test("in the help", async () => {
        const page = await openLadders([first]);
        await page.keyboard.press("?");
        await page.waitForSelector("dialog[open]");
        expect(await findings(page)).toEqual([]);
    });

    test("when a token is wanted, and one was wrong", async () => {
        const tap = new Tap();
        tap.change = (message) => (message.type === "hello" ? { ...message, authenticated: false } : message);
        tap.keepBack = (message) => {
            if (message.type === "authenticate") void tap.sockets.at(-1)!.close({ code: 1008, reason: "" });
            return true;
        };
        const page = await openPage({ tap });
        await page.fill("#token", "wrong");
        await page.keyboard.press("Enter");
        await expect.poll(() => page.innerText("#token-note")).toContain("refused");
        expect(await findings(page)).toEqual([]);
    });

    test("on a narrow screen, dark", async () => {
        const page = await openLadders([first], { width: 390, height: 844, dark: true });
        expect(await findings(page)).toEqual([]);
    });
});

const sizes = [
    [1280, 800],
    [1920, 1080],
    [390, 844],
] as const;

describe.each(sizes)("At %i by %i", (width, height) => {
    test.each([false, true])("ladders fit (dark: %s)", async (dark) => {
        const page = await openPage({ width, height, dark, hash: hashOf(active.slice(0, 8)) });
        await page.waitForSelector('.panel[aria-busy="false"]');
        // A few points for the chart.
        await new Promise((resolve) => setTimeout(resolve, 2500));
        expect(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth)).toBe(true);
        await page.screenshot({ path: `${artefacts}ladders-${width}x${height}-${dark ? "dark" : "light"}.png` });
    });

    test.each([false, true])("operations fit (dark: %s)", async (dark) => {
        await openLadders(active.slice(0, 3));
        const page = await openPage({ width, height, dark, hash: "#view=operations" });
        await expect.poll(() => page.innerText(".operations")).toContain(active[0]!);
        expect(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth)).toBe(true);
        await page.screenshot({ path: `${artefacts}operations-${width}x${height}-${dark ? "dark" : "light"}.png` });
    });
});

test("Scope controls, badges and messages, as a picture", async () => {
    const tap = new Tap();
    const page = await openLadders(active.slice(0, 5), { tap, scope: "10,0,bt" });
    tap.change = (message) =>
        message.type === "update" && message.instrument === first ? { ...message, stale: ["direct"], missing: ["implied"] } : message;
    await page.waitForSelector(".badge.stale", { timeout: 20_000 });
    tap.say({ type: "error", request: null, code: "bad_value", where: "depth", message: '"depth" is 0: a whole number from 1 to 1000 expected' });
    await page.locator('[aria-label^="Scope of"]').nth(1).click();
    await page.waitForSelector(".toast");
    await page.screenshot({ path: `${artefacts}scope-badges-message.png` });
    expect(await page.locator(".scope").isVisible()).toBe(true);
});
