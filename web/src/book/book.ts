import type { Component, Image, Level, Update } from "../protocol/messages.ts";
import { compareDecimals, isZero } from "./decimal.ts";

export type Applied =
    /** The book is that of the message now. */
    | "applied"
    /** An image is needed: this update does not follow what the book has. */
    | "gap"
    /** An image has been asked for, and has not come. */
    | "ignored";

/**
 * The book of one subscription, kept beside every framework: messages change it in place, painting reads it.
 * Both sides are sorted, best level first.
 */
export class Book {
    bids: Level[] = [];
    asks: Level[] = [];
    missing: readonly Component[] = [];
    stale: readonly Component[] = [];
    epoch = 0;
    sequence = 0;
    exchangeTimeNs: string | null = null;
    receiveTimeNs: string | null = null;
    /** Grows with each change: what has been painted can be told from what has not. */
    version = 0;
    hasImage = false;
    #needsImage = true;

    get needsImage(): boolean {
        return this.#needsImage;
    }

    /** The connection was lost, or the scope has changed: only an image goes on from here. What is shown stays. */
    expectImage(): void {
        this.#needsImage = true;
    }

    applyImage(image: Image): void {
        this.bids = image.bids;
        this.asks = image.asks;
        this.missing = image.missing ?? [];
        this.stale = image.stale ?? [];
        this.hasImage = true;
        this.#needsImage = false;
        this.#stamp(image);
    }

    applyUpdate(update: Update): Applied {
        if (this.#needsImage) return "ignored";
        if (update.epoch !== this.epoch || update.previous !== this.sequence) {
            this.#needsImage = true;
            return "gap";
        }
        for (const level of update.bids) applyLevel(this.bids, level, -1);
        for (const level of update.asks) applyLevel(this.asks, level, 1);
        if (this.bids.length > update.depth || this.asks.length > update.depth) {
            // Levels that fall off are named as gone: a longer side is one that has missed something.
            this.#needsImage = true;
            return "gap";
        }
        if (update.missing !== undefined) this.missing = update.missing;
        if (update.stale !== undefined) this.stale = update.stale;
        this.#stamp(update);
        return "applied";
    }

    #stamp(message: Image | Update): void {
        this.epoch = message.epoch;
        this.sequence = message.sequence;
        this.exchangeTimeNs = message.exchange_time_ns;
        this.receiveTimeNs = message.receive_time_ns;
        this.version += 1;
    }
}

/** `direction` is 1 where prices ascend from the best (asks), -1 where they descend. */
function applyLevel(side: Level[], level: Level, direction: 1 | -1): void {
    let low = 0;
    let high = side.length;
    while (low < high) {
        const middle = (low + high) >> 1;
        if (compareDecimals(side[middle]![0], level[0]) * direction < 0) low = middle + 1;
        else high = middle;
    }
    const found = low < side.length && compareDecimals(side[low]![0], level[0]) === 0;
    if (isZero(level[1]) && isZero(level[2])) {
        if (found) side.splice(low, 1);
    } else if (found) side[low] = level;
    else side.splice(low, 0, level);
}
