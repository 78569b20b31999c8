import { describe, expect, test } from "vitest";
import { active, hashOf, type Json, ladderRows, openLadders, openPage, panelNames, Tap, toasts } from "../harness.ts";

const [first] = active as [string];

describe("When something goes wrong, the page", () => {
    test("asks for an image after a gap, and goes on", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        let images: number | null = null;
        tap.change = (message) => {
            if (message.type !== "update" || images !== null) return message;
            images = tap.receivedOf("image").length;
            return null;
        };
        await expect.poll(() => tap.sentOf("change"), { timeout: 20_000 }).toMatchObject([{ image: true }]);
        await expect.poll(() => tap.receivedOf("image").length).toBeGreaterThan(images!);
        await expect.poll(() => page.locator(".panel").getAttribute("aria-busy")).toBe("false");
        expect(await page.innerText(".connection")).not.toContain("offline");
    });

    test("does not show an update of another epoch", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.keepBack = (message) => message.type === "change";
        tap.freeze();
        const { sequence } = tap.received.findLast(({ type }) => type === "image" || type === "update")!;
        tap.say({ type: "update", instrument: first, depth: 5, epoch: 999, previous: sequence, sequence: 1e6, bids: [["123456", "1", "0", 1]], asks: [] });
        await expect.poll(() => tap.sentOf("change")).toMatchObject([{ image: true }]);
        expect((await ladderRows(page)).flat().join(" ")).not.toContain("123456");
        expect(await page.locator(".panel").getAttribute("aria-busy")).toBe("true");
    });

    test("says what was refused, and where, to the eye and to the ear", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.say({ type: "error", request: null, code: "bad_value", where: "depth", message: "a whole number expected" });
        await expect.poll(() => toasts(page)).toEqual([expect.stringMatching(/a whole number expected\s+depth/)]);
        expect(await page.locator(".toasts").getAttribute("aria-live")).toBe("polite");
    });

    test("counts a complaint that comes again, and lets it be dismissed", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        const error = { type: "error", request: null, code: "bad_value", where: "depth", message: "no" };
        tap.say(error, error, error);
        await expect.poll(() => page.innerText(".toast .count")).toContain("×3");
        await page.click('.toast [aria-label="Dismiss"]');
        await expect.poll(() => page.locator(".toast").count()).toBe(0);
    });

    test("goes on after a line that is no JSON", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.sockets[0]!.send("this is no JSON");
        await expect.poll(() => toasts(page)).toEqual([expect.stringContaining("not understood: this is no JSON")]);
        const before = JSON.stringify(await ladderRows(page));
        await expect.poll(() => ladderRows(page).then((rows) => JSON.stringify(rows)), { timeout: 20_000 }).not.toBe(before);
    });

    test("says why an instrument of a link is not shown", async () => {
        const page = await openPage({ hash: hashOf(["NOWHERE:NOTHING"]) });
        await page.waitForSelector(".failure");
        expect((await page.innerText(".failure p")).length).toBeGreaterThan(5);
        await expect.poll(() => page.innerText(".toasts")).toContain("NOWHERE:NOTHING");
    });

    test("tries again when told, and explains when asked", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        const request = tap.sentOf("subscribe")[0]!.request;
        // Of a kind that does not pass by itself: the page does not try again before it is told to.
        tap.say({ type: "error", request, code: "unknown_instrument", where: "instrument", message: "nobody knows it" });
        await page.waitForSelector(".failure");
        await page.click("text=Why?");
        await page.waitForSelector("dialog[open] .tree");
        expect(await page.innerText("dialog[open] h2")).toContain(first);
        await page.keyboard.press("Escape");
        await page.click("text=Try again");
        await expect.poll(() => tap.sentOf("subscribe").length).toBe(2);
        await expect.poll(() => page.locator(".failure").count()).toBe(0);
    });

    test("tries again by itself when that may help", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        const request = tap.sentOf("subscribe")[0]!.request;
        tap.say({ type: "result", request, code: 17, name: "DirectSubscriptionFailed", meaning: "it cannot be had" });
        await expect.poll(() => tap.sentOf("subscribe").length).toBe(2);
        await expect.poll(() => page.locator('.panel[aria-busy="false"]').count()).toBe(1);
        await expect.poll(() => page.locator(".failure").count()).toBe(0);
    });

    test("marks a component that cannot be had", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        const request = tap.sentOf("subscribe")[0]!.request;
        tap.say({ type: "result", request, code: 17, name: "DirectSubscriptionFailed", meaning: "no", component: "aggregated" });
        await expect.poll(() => page.locator(".badge").allInnerTexts()).toContain("refused aggregated");
    });

    test("follows an instrument that is renamed, in its title and its address", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.freeze();
        const market = first.split(":")[0];
        tap.say({ type: "renamed", instrument: first, symbol: "RENAMED", epoch: 2 });
        await expect.poll(() => panelNames(page)).toEqual([`${market}:RENAMED`]);
        await expect.poll(() => page.url()).toContain(`${market}:RENAMED`);
        tap.say({ ...tap.image(first), instrument: `${market}:RENAMED`, epoch: 99, bids: [["7", "1", "0", 1]], asks: [] });
        await expect.poll(() => ladderRows(page).then((rows) => rows[0]![3])).toMatch(/^7/);
    });

    test("shows how much was conflated, and what was lost", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap, width: 1600 });
        tap.say({ type: "conflated", instrument: first, depth: 5, count: 1234 }, { type: "gap", instrument: first, kind: "trades", lost: 17 });
        await expect.poll(() => page.innerText(".figure.conflated")).toContain("1234");
        await expect.poll(() => page.innerText(".figure.gaps")).toContain("17");
    });

    test("says so when the server has sent what it must not", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.sockets[0]!.send(Buffer.from([1, 2, 3]));
        await expect.poll(() => toasts(page)).toEqual([expect.stringContaining("binary data")]);
        await expect.poll(() => page.innerText(".connection .state")).toBe("live");
    });

    test("says that it was too slow, and does not come back at once", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.refuse = true;
        const begin = performance.now();
        await tap.sockets[0]!.close({ code: 1013, reason: "" });
        await expect.poll(() => page.getAttribute(".connection", "title")).toContain("too slow");
        tap.refuse = false;
        await expect.poll(() => page.innerText(".connection .state"), { timeout: 30_000 }).toBe("live");
        expect(performance.now() - begin).toBeGreaterThan(2900);
    });

    test("comes back by itself with fresh images when the connection is lost", async () => {
        const tap = new Tap();
        const page = await openLadders([first], { tap });
        tap.refuse = true;
        await tap.sockets[0]!.close({ code: 1001, reason: "the server stops" });
        await expect.poll(() => page.innerText(".connection .state")).toMatch(/offline|connecting/);
        expect(await page.locator(".panel").getAttribute("aria-busy")).toBe("true");
        expect((await ladderRows(page)).flat().join("")).not.toBe("");
        tap.refuse = false;
        await expect.poll(() => page.innerText(".connection .state"), { timeout: 20_000 }).toBe("live");
        await expect.poll(() => page.locator(".panel").getAttribute("aria-busy")).toBe("false");
        expect(tap.sentOf("subscribe").length).toBe(2);
    });
});

describe("When the server demands a token, the page", () => {
    /** The server greets without rights, and takes one token. */
    function guard(tap: Tap, right: string): void {
        let hello: Json | null = null;
        tap.change = (message) => {
            if (message.type !== "hello") return message;
            hello = message;
            return { ...message, authenticated: false };
        };
        tap.keepBack = (message) => {
            if (message.type !== "authenticate") return false;
            if (message.token === right) tap.say({ type: "authenticated", rights: hello!.rights });
            else void tap.sockets.at(-1)!.close({ code: 1008, reason: "" });
            return true;
        };
    }

    test("asks for it, keeps it for the tab only, and sends it nowhere else", async () => {
        const tap = new Tap();
        guard(tap, "s3cret");
        const headers: string[] = [];
        const page = await openPage({
            tap,
            hash: hashOf([first]),
            prepare: (one) => {
                one.on("request", (request) => headers.push(request.headers().authorization ?? ""));
                return Promise.resolve();
            },
        });
        await page.waitForSelector("dialog[open] #token");
        expect(await page.evaluate(() => document.activeElement?.id)).toBe("token");
        await page.keyboard.type("s3cret");
        await page.keyboard.press("Enter");
        await page.waitForSelector('.panel[aria-busy="false"]');
        expect(await page.locator("dialog[open]").count()).toBe(0);
        expect(await page.evaluate(() => JSON.stringify([sessionStorage, localStorage]))).toMatch(/s3cret.*\},\{(?!.*s3cret)/);
        expect(page.url()).not.toContain("s3cret");
        await expect.poll(() => headers).toContain("Bearer s3cret");
    });

    test("says when it was wrong, and takes another one", async () => {
        const tap = new Tap();
        guard(tap, "right");
        const page = await openPage({ tap, hash: hashOf([first]) });
        await page.fill("#token", "wrong");
        await page.keyboard.press("Enter");
        await expect.poll(() => page.innerText("#token-note")).toContain("refused");
        await page.fill("#token", "right");
        await page.keyboard.press("Enter");
        await page.waitForSelector('.panel[aria-busy="false"]');
    });

    test("remembers it over a reload", async () => {
        const tap = new Tap();
        guard(tap, "s3cret");
        const page = await openPage({ tap, hash: hashOf([first]) });
        await page.fill("#token", "s3cret");
        await page.keyboard.press("Enter");
        await page.waitForSelector('.panel[aria-busy="false"]');
        await page.reload();
        await page.waitForSelector('.panel[aria-busy="false"]');
        expect(tap.sentOf("authenticate").length).toBe(2);
    });
});
