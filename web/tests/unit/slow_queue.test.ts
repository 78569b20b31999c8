import { beforeEach, describe, expect, test } from "vitest";
import { SlowQueue } from "../../src/paint/slow_queue.ts";
import { HandClock } from "./builders.ts";

interface Item {
    name: string;
}

const [a, b, c] = ["a", "b", "c"].map((name) => ({ name })) as [Item, Item, Item];

let clock: HandClock;
let done: string[];
let queue: SlowQueue<Item>;

beforeEach(() => {
    clock = new HandClock();
    done = [];
    queue = new SlowQueue<Item>(clock, ({ name }) => done.push(`${name} at ${clock.now()}`), 1000, 40);
});

describe("SlowQueue", () => {
    test("serves at once who comes first after a rest", () => {
        queue.add(a);
        expect(done).toEqual(["a at 0"]);
    });

    test("serves an item that keeps changing once in a period, and for the last time after its last change", () => {
        for (let i = 0; i < 250; i += 1) {
            queue.add(a);
            clock.advance(10);
        }
        clock.advance(5000);
        expect(done).toEqual(["a at 0", "a at 1000", "a at 2000", "a at 3000"]);
    });

    test("serves one at a time, with a pause between them", () => {
        for (const item of [a, b, c]) queue.add(item);
        clock.advance(500);
        expect(done).toEqual(["a at 0", "b at 40", "c at 80"]);
    });

    test("lets nobody wait for one that is not due yet", () => {
        queue.add(a);
        clock.advance(100);
        queue.add(a);
        clock.advance(50);
        queue.add(b);
        clock.advance(2000);
        expect(done[1]).toMatch(/^b at [1-9]\d\d$/);
        expect(done[2]).toBe("a at 1000");
    });

    test("forgets who is gone", () => {
        for (const item of [a, b, c]) queue.add(item);
        queue.forget(b);
        clock.advance(500);
        expect(done.map((text) => text[0])).toEqual(["a", "c"]);
    });
});
