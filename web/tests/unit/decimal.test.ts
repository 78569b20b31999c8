import { describe, expect, test } from "vitest";
import { alignAtPoint, compareDecimals, middle, padZeros, subtract } from "../../src/book/decimal.ts";

describe("compareDecimals", () => {
    test.each([
        ["1", "2", -1],
        ["2", "10", -1],
        ["1.5", "1.50", 0],
        ["1.05", "1.5", -1],
        ["-1", "1", -1],
        ["-2", "-1", -1],
        ["0", "-0", 0],
        ["007", "7", 0],
        ["0.1", "0.09", 1],
        ["9811.3", "9811.30", 0],
    ])("puts %s and %s in order", (a, b, expected) => {
        expect(Math.sign(compareDecimals(a, b))).toBe(expected);
        expect(Math.sign(compareDecimals(b, a))).toBe(expected === 0 ? 0 : -expected);
    });

    test("tells numbers apart that are the same as floating point", () => {
        expect(Number("9007199254740993.00000001")).toBe(Number("9007199254740993.00000002"));
        expect(compareDecimals("9007199254740993.00000001", "9007199254740993.00000002")).toBe(-1);
    });
});

describe("alignment at the point", () => {
    test("puts points below each other when set from the right", () => {
        const lines = ["1", "0.5", "12.25"].map((text) => alignAtPoint(text, 2).padStart(6));
        expect(lines).toEqual(["  1   ", "  0.5 ", " 12.25"]);
        expect(lines.map((line) => line.length)).toEqual([6, 6, 6]);
    });

    test("leaves whole numbers alone in a column of whole numbers", () => {
        expect(alignAtPoint("120", 0)).toBe("120");
    });

    test("never cuts a number that has more digits than its column", () => {
        expect(alignAtPoint("1.2345", 2)).toBe("1.2345");
        expect(padZeros("1.2345", 2)).toBe("1.2345");
    });

    test("writes out the zeros of prices", () => {
        expect(padZeros("9811.3", 2)).toBe("9811.30");
        expect(padZeros("9811", 2)).toBe("9811.00");
    });
});

describe("arithmetic", () => {
    test("finds the middle, with one digit more where it needs it", () => {
        expect(middle("61828.57", "61828.58")).toBe("61828.575");
        expect(middle("1", "3")).toBe("2");
        expect(middle("1", "2")).toBe("1.5");
        expect(middle("-18.5", "-18.1")).toBe("-18.3");
        expect(middle("-0.1", "0.1")).toBe("0.0");
    });

    test("subtracts what floating point cannot", () => {
        expect(subtract("0.3", "0.1")).toBe("0.2");
        expect(subtract("61828.58", "61828.57")).toBe("0.01");
        expect(subtract("1", "1.5")).toBe("-0.5");
    });
});
