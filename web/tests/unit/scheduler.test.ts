import { beforeEach, describe, expect, test } from "vitest";
import { type FrameSource, PaintScheduler, quantile } from "../../src/paint/scheduler.ts";

/** Frames that come by hand; each painting takes `costMs`. */
class HandFrames implements FrameSource {
    nowMs = 1000;
    #frame: ((nowMs: number) => void) | null = null;
    #after: (() => void)[] = [];
    now = () => this.nowMs;
    requestFrame(callback: (nowMs: number) => void): void {
        expect(this.#frame).toBeNull();
        this.#frame = callback;
    }
    afterFrame(callback: () => void): void {
        this.#after.push(callback);
    }
    get requested(): boolean {
        return this.#frame !== null;
    }
    run(laterMs = 1000 / 60): void {
        this.nowMs += laterMs;
        const frame = this.#frame!;
        this.#frame = null;
        frame(this.nowMs);
        this.#after.splice(0).forEach((callback) => callback());
    }
}

let frames: HandFrames;
let painted: string[];

beforeEach(() => {
    frames = new HandFrames();
    painted = [];
});

function item(name: string, costMs = 0) {
    return {
        paint() {
            painted.push(name);
            frames.nowMs += costMs;
        },
    };
}

describe("PaintScheduler", () => {
    test("paints once in a frame what has changed many times", () => {
        const scheduler = new PaintScheduler(frames);
        const one = item("one");
        for (let i = 0; i < 100; i += 1) scheduler.mark(one, frames.nowMs);
        frames.run();
        expect(painted).toEqual(["one"]);
        expect(frames.requested).toBe(false);
    });

    test("stops when the time is used up, and goes on with those who have waited longest", () => {
        const scheduler = new PaintScheduler(frames, 5);
        const items = ["a", "b", "c", "d"].map((name) => item(name, 3));
        for (const one of items) scheduler.mark(one, frames.nowMs);
        frames.run();
        expect(painted).toEqual(["a", "b"]);
        scheduler.mark(items[0]!, frames.nowMs);
        frames.run();
        expect(painted).toEqual(["a", "b", "c", "d"]);
        frames.run();
        expect(painted).toEqual(["a", "b", "c", "d", "a"]);
    });

    test("paints at least one, however long it takes", () => {
        const scheduler = new PaintScheduler(frames, 5);
        for (const name of ["slow", "next"]) scheduler.mark(item(name, 50), frames.nowMs);
        frames.run();
        frames.run();
        expect(painted).toEqual(["slow", "next"]);
    });

    test("paints less in a frame when frames come late, and more again when they do not", () => {
        const scheduler = new PaintScheduler(frames, 5, 20, 4);
        const one = item("one");
        const frame = (laterMs: number) => {
            scheduler.mark(one, frames.nowMs);
            frames.run(laterMs);
        };
        for (let i = 0; i < 20; i += 1) frame(40);
        expect(scheduler.share).toBe(4);
        for (let i = 0; i < 30; i += 1) frame(16);
        expect(scheduler.share).toBe(20);
        frame(5000);
        expect(scheduler.share).toBe(20);
    });

    test("does not paint what has gone out of sight", () => {
        const scheduler = new PaintScheduler(frames);
        const one = item("one");
        scheduler.mark(one, frames.nowMs);
        scheduler.forget(one);
        frames.run();
        expect(painted).toEqual([]);
    });

    test("measures from the first change that was not shown yet", () => {
        const scheduler = new PaintScheduler(frames);
        const one = item("one");
        scheduler.mark(one, frames.nowMs);
        scheduler.mark(one, frames.nowMs + 9);
        frames.run(10);
        expect(scheduler.lags).toEqual([10]);
    });
});

describe("quantile", () => {
    test("is a value that was there", () => {
        expect(quantile([5, 1, 3, 2, 4], 0.5)).toBe(3);
        expect(quantile([1, 2], 0.99)).toBe(2);
        expect(quantile([], 0.5)).toBeNull();
    });
});
