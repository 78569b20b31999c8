import { describe, expect, test } from "vitest";
import { Book } from "../../src/book/book.ts";
import { History, quoteOf } from "../../src/book/history.ts";
import { image, level, update } from "./builders.ts";

function bookWithImage(): Book {
    const book = new Book();
    book.applyImage(image());
    return book;
}

const prices = (levels: readonly (readonly [string, ...unknown[]])[]) => levels.map(([price]) => price);

describe("Book", () => {
    test("replaces a level, adds one, and takes one away", () => {
        const book = bookWithImage();
        const bids = [level("99", "5"), level("98.5", "3"), level("98", "0")];
        expect(book.applyUpdate(update({ bids }))).toBe("applied");
        expect(book.bids).toEqual([level("99", "5"), level("98.5", "3")]);
        expect(book.asks).toEqual(image().asks);
    });

    test("keeps asks ascending and bids descending", () => {
        const book = bookWithImage();
        book.applyUpdate(update({ bids: [level("100", "1"), level("97", "1")], asks: [level("100.5", "1"), level("1000", "1")] }));
        expect(prices(book.bids)).toEqual(["100", "99", "98", "97"]);
        expect(prices(book.asks)).toEqual(["100.5", "101", "102", "1000"]);
    });

    test("keeps a level that has only an implied quantity", () => {
        const book = bookWithImage();
        book.applyUpdate(update({ asks: [level("101", "0", "7")] }));
        expect(book.asks[0]).toEqual(level("101", "0", "7"));
    });

    test("finds a price that is spelled in another way", () => {
        const book = bookWithImage();
        book.applyUpdate(update({ bids: [level("99.00", "0")] }));
        expect(prices(book.bids)).toEqual(["98"]);
    });

    test("orders negative prices of spreads", () => {
        const book = new Book();
        book.applyImage(image({ bids: [level("-18.5", "1"), level("-18.7", "1")], asks: [level("-18.1", "1")] }));
        book.applyUpdate(update({ bids: [level("-18.6", "1")], asks: [level("-17.9", "1")] }));
        expect(prices(book.bids)).toEqual(["-18.5", "-18.6", "-18.7"]);
        expect(prices(book.asks)).toEqual(["-18.1", "-17.9"]);
    });

    test("notices a gap, and ignores updates until an image comes", () => {
        const book = bookWithImage();
        expect(book.applyUpdate(update({ previous: 9, sequence: 12, bids: [level("99", "9")] }))).toBe("gap");
        expect(book.applyUpdate(update({ previous: 10, sequence: 13 }))).toBe("ignored");
        expect(book.bids[0]).toEqual(level("99", "1"));
        book.applyImage(image({ sequence: 20 }));
        expect(book.applyUpdate(update({ previous: 20, sequence: 25 }))).toBe("applied");
        expect(book.sequence).toBe(25);
    });

    test("does not take an update of another epoch, even with the right sequence", () => {
        const book = bookWithImage();
        expect(book.applyUpdate(update({ epoch: 2 }))).toBe("gap");
    });

    test("opens an epoch with an image", () => {
        const book = bookWithImage();
        book.applyImage(image({ epoch: 2, sequence: 1, bids: [], asks: [] }));
        expect([book.epoch, book.bids.length]).toEqual([2, 0]);
        expect(book.applyUpdate(update({ epoch: 2, previous: 1, sequence: 2 }))).toBe("applied");
    });

    test("takes a side that grows beyond its depth for a gap", () => {
        const book = bookWithImage();
        expect(book.applyUpdate(update({ depth: 2, bids: [level("97", "1")] }))).toBe("gap");
    });

    test("keeps missing and stale components until an update names others", () => {
        const book = new Book();
        book.applyImage(image({ missing: ["implied"], stale: ["direct"] }));
        book.applyUpdate(update());
        expect([book.missing, book.stale]).toEqual([["implied"], ["direct"]]);
        book.applyUpdate(update({ previous: 11, sequence: 12, stale: [] }));
        expect([book.missing, book.stale]).toEqual([["implied"], []]);
    });
});

describe("History", () => {
    test("takes one point in each interval", () => {
        const history = new History(500, 100);
        const book = bookWithImage();
        expect([0, 100, 499, 500, 900, 1000].map((ms) => history.sample(book, ms))).toEqual([true, false, false, true, false, true]);
        expect(history.mids).toEqual([100, 100, 100]);
        expect(history.spreads).toEqual([2, 2, 2]);
    });

    test("has a hole where a side is empty", () => {
        const history = new History(500, 100);
        const book = new Book();
        book.applyImage(image({ asks: [] }));
        history.sample(book, 0);
        expect(history.mids).toEqual([null]);
        expect(quoteOf(book)).toBeNull();
    });

    test("forgets the oldest points", () => {
        const history = new History(1, 16);
        const book = bookWithImage();
        for (let ms = 0; ms < 100; ms += 1) history.sample(book, ms);
        expect(history.times.length).toBeLessThanOrEqual(16);
        expect(history.times.at(-1)).toBeCloseTo(0.099);
        expect(history.mids.length).toBe(history.times.length);
    });
});
