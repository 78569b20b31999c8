import { describe, expect, test } from "vitest";
import { firstOfEachMarket, panelsThatFit } from "../../src/ui/first_visit.ts";

const list = ["A:1", "A:2", "A:3", "B:1", "C:1"].map((name) => ({ market: name[0]!, symbol: name.slice(2) }));

describe("What a newcomer is shown", () => {
    test("is one instrument of each market, then the second of each", () => {
        expect(firstOfEachMarket(list, 4)).toEqual(["A:1", "B:1", "C:1", "A:2"]);
    });

    test("is what there is, if that is less", () => {
        expect(firstOfEachMarket(list.slice(0, 2), 4)).toEqual(["A:1", "A:2"]);
        expect(firstOfEachMarket([], 4)).toEqual([]);
    });

    test("is what fits, from one to four ladders", () => {
        expect(panelsThatFit(1280, 800)).toBe(4);
        expect(panelsThatFit(1920, 1080)).toBe(4);
        expect(panelsThatFit(390, 844)).toBe(3);
        expect(panelsThatFit(320, 240)).toBe(1);
    });
});
