import { describe, expect, test } from "vitest";
import { askForMatches, largestDirectory, loadDirectory, makeEntry } from "../../src/search/directory.ts";
import { search, visibleRows } from "../../src/search/match.ts";

const entries = [
    makeEntry("SIM", "GOLD-MAR27"),
    makeEntry("SIM", "GOLD-MAR27-JUN27"),
    makeEntry("SPOT", "BTCUSDT"),
    makeEntry("USDM", "BTCUSDT"),
    makeEntry("SPOT", "WBTCUSDT"),
    makeEntry("SPOT", "BTC"),
];

const names = (query: string) => search(entries, query).map(({ instrument }) => instrument);

describe("search", () => {
    test("shows everything when nothing is asked", () => {
        expect(search(entries, "  ")).toBe(entries);
    });

    test("puts the symbol itself first, then those that begin so, then those that contain it", () => {
        expect(names("btc")).toEqual(["SPOT:BTC", "SPOT:BTCUSDT", "USDM:BTCUSDT", "SPOT:WBTCUSDT"]);
    });

    test("finds the parts of a name", () => {
        expect(names("jun27")).toEqual(["SIM:GOLD-MAR27-JUN27"]);
    });

    test("wants every word, in any order", () => {
        expect(names("btcusdt usdm")).toEqual(["USDM:BTCUSDT"]);
        expect(names("usdm btcusdt")).toEqual(["USDM:BTCUSDT"]);
        expect(names("btc gold")).toEqual([]);
    });

    test("searches ten thousand names in less than a frame's time, on average", () => {
        const many = Array.from({ length: 10_000 }, (_, index) => makeEntry("SIM", `ROOT${index % 100}-M${index}`));
        const begin = performance.now();
        for (let i = 0; i < 20; i += 1) search(many, "root42");
        expect((performance.now() - begin) / 20).toBeLessThan(100);
        expect(search(many, "root42").length).toBe(100);
    });
});

describe("visibleRows", () => {
    test("has only what is seen, and a few more", () => {
        expect(visibleRows(0, 400, 20, 10_000, 6)).toEqual({ first: 0, count: 26 });
        expect(visibleRows(100_000, 400, 20, 10_000, 6)).toEqual({ first: 4994, count: 32 });
    });

    test("ends with the list", () => {
        expect(visibleRows(199_600, 400, 20, 10_000, 6)).toEqual({ first: 9974, count: 26 });
        expect(visibleRows(199_600, 400, 20, 3, 6)).toEqual({ first: 3, count: 0 });
        expect(visibleRows(0, 400, 20, 0, 6)).toEqual({ first: 0, count: 0 });
    });
});

describe("loadDirectory", () => {
    test("reads page after page until it has all", async () => {
        const asked: string[] = [];
        const all = Array.from({ length: 2500 }, (_, index) => ({ market: "SIM", symbol: `S${index}` }));
        let loaded = 0;
        await loadDirectory(
            (entries) => (loaded = entries.length),
            (path) => {
                asked.push(path);
                const offset = Number(new URL(path, "http://host").searchParams.get("offset"));
                return Promise.resolve({ total: all.length, instruments: all.slice(offset, offset + 1000) });
            },
        );
        expect([asked.length, loaded]).toEqual([3, 2500]);
    });

    test("ends when the server has fewer than it said", async () => {
        let pages = 0;
        await loadDirectory(
            () => undefined,
            () => {
                pages += 1;
                return Promise.resolve({ total: 10, instruments: pages === 1 ? ["SIM:A"] : [] });
            },
        );
        expect(pages).toBe(2);
    });

    test("stops after the first page when there are more than a page holds", async () => {
        let pages = 0;
        const isWhole = await loadDirectory(
            () => undefined,
            () => {
                pages += 1;
                return Promise.resolve({ total: largestDirectory + 1, instruments: ["SIM:A"] });
            },
        );
        expect([isWhole, pages]).toEqual([false, 1]);
    });
});

describe("askForMatches", () => {
    test("asks for the longest word, and looks for the others itself", async () => {
        const asked: string[] = [];
        const found = await askForMatches("usdm BTCusdt", undefined, (path) => {
            asked.push(new URL(path, "http://host").searchParams.get("search")!);
            return Promise.resolve({ total: 2, instruments: [{ market: "SPOT", symbol: "BTCUSDT" }, { market: "USDM", symbol: "BTCUSDT" }] });
        });
        expect(asked).toEqual(["btcusdt"]);
        expect(found.entries.map(({ instrument }) => instrument)).toEqual(["USDM:BTCUSDT"]);
        expect(found.isWhole).toBe(true);
    });

    test("says when there are more than it has got", async () => {
        const found = await askForMatches("a", undefined, () => Promise.resolve({ total: 1001, instruments: ["SIM:A"] }));
        expect(found.isWhole).toBe(false);
    });
});
