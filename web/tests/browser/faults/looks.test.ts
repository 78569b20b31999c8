import { describe, expect, test } from "vitest";
import { axeFindings } from "../axe.ts";
import { active, openLadders, openPage, Tap } from "../harness.ts";
import { screenshots } from "../needs.ts";

const [first] = active as [string];

describe("axe finds nothing", () => {
    test("with scope controls, badges, a deep book and a message", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap, scope: "50,0,btf" });
        tap.change = (message) => (message.type === "update" ? { ...message, stale: ["direct"], missing: ["implied"] } : message);
        await page.waitForSelector(".badge.stale", { timeout: 20_000 });
        tap.say({ type: "error", request: null, code: "bad_value", where: "depth", message: "a whole number expected" });
        await page.click('[aria-label^="Scope of"]');
        await page.waitForSelector(".toast");
        await page.waitForFunction(() => document.getAnimations().length === 0);
        expect(await axeFindings(page)).toEqual([]);
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
        expect(await axeFindings(page)).toEqual([]);
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
    await page.screenshot({ path: `${screenshots}scope-badges-message.png` });
    expect(await page.locator(".scope").isVisible()).toBe(true);
});
