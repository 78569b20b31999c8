import { describe, expect, test } from "vitest";
import { active, openLadders, Tap } from "../harness.ts";

const [first] = active as [string];

describe("With reduced motion", () => {
    const say = { type: "error", request: null, code: "x", where: "y", message: "z" };

    test("nothing is animated", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap, reducedMotion: true });
        tap.say(say);
        await page.waitForSelector(".toast");
        expect(await page.evaluate(() => getComputedStyle(document.querySelector(".toast")!).animationName)).toBe("none");
    });

    test("and without it, messages come in gently", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.say(say);
        await page.waitForSelector(".toast");
        expect(await page.evaluate(() => getComputedStyle(document.querySelector(".toast")!).animationName)).toBe("appear");
    });
});
