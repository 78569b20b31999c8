import { describe, expect, test } from "vitest";
import { GaugeHistory, readGauges, readRows, sparkline } from "../../src/api/operations.ts";

describe("operations", () => {
    test("reads gauges as a list with labels, and as plain members", () => {
        const list = readGauges({ gauges: [{ name: "queue", labels: { name: "data" }, value: 3 }] });
        expect([...list]).toEqual([["queue name=data", 3]]);
        expect([...readGauges({ gauges: { queue: 3 } })]).toEqual([["queue", 3]]);
        expect([...readGauges({})]).toEqual([]);
    });

    test("finds the rows of an answer, and none in what has none", () => {
        expect(readRows({ sessions: [{ session: 1 }] }, "sessions")).toEqual([{ session: 1 }]);
        expect(readRows([{ session: 1 }], "sessions")).toEqual([{ session: 1 }]);
        expect(readRows({ sessions: 5 }, "sessions")).toEqual([]);
        expect(readRows(null, "sessions")).toEqual([]);
    });

    test("keeps the newest values, and forgets gauges that are gone", () => {
        const history = new GaugeHistory(3);
        for (const value of [1, 2, 3, 4]) history.add(new Map([["a", value]]));
        expect(history.series.get("a")).toEqual([2, 3, 4]);
        history.add(new Map([["b", 1]]));
        expect([...history.series.keys()]).toEqual(["b"]);
    });

    test("draws the newest value at the right end, within its box", () => {
        expect(sparkline([0, 10], 3, 100, 20)).toBe("50.0,19.0 100.0,1.0");
        expect(sparkline([5, 5], 2, 100, 20)).toBe("0.0,10.0 100.0,10.0");
    });
});
