export interface Paintable {
    /** Brings the screen up to date with the data; cheap if nothing differs. */
    paint(): void;
}

export interface FrameSource {
    now(): number;
    requestFrame(callback: (nowMs: number) => void): void;
    /** Runs `callback` once the frame at hand has been laid out and painted. */
    afterFrame(callback: () => void): void;
}

export const browserFrames: FrameSource = {
    now: () => performance.now(),
    requestFrame: (callback) => void requestAnimationFrame(() => callback(performance.now())),
    // Layout and painting belong to the task that calls back for the frame: a task of its own comes after them.
    afterFrame: (callback) => void setTimeout(callback),
};

const frameMs = 1000 / 60;

/**
 * The one loop that paints. Data that changes marks what shows it; each frame paints what has waited longest, as much as
 * fits. How much that is follows from the frames themselves: layout and painting happen after this code, so only the time
 * from frame to frame tells what was too much.
 */
export class PaintScheduler {
    /** Milliseconds from the arrival of data to the end of the frame that shows it, newest last. */
    readonly lags: number[] = [];
    paints = 0;
    frames = 0;
    #dirty = new Map<Paintable, number>();
    #requested = false;
    #lastFrameMs = 0;
    #share: number;

    constructor(
        private readonly source: FrameSource,
        private readonly budgetMs = 6,
        private readonly largestShare = 25,
        private readonly smallestShare = 17,
    ) {
        this.#share = largestShare;
    }

    /** How many a frame may paint at present. */
    get share(): number {
        return this.#share;
    }

    mark(item: Paintable, sinceMs: number): void {
        if (!this.#dirty.has(item)) this.#dirty.set(item, sinceMs);
        if (this.#requested) return;
        this.#requested = true;
        this.source.requestFrame((nowMs) => this.#frame(nowMs));
    }

    /** It is gone, or out of sight. */
    forget(item: Paintable): void {
        this.#dirty.delete(item);
    }

    #frame(nowMs: number): void {
        this.#requested = false;
        this.frames += 1;
        this.#adapt(nowMs);
        const painted: number[] = [];
        for (const [item, sinceMs] of this.#dirty) {
            if (painted.length >= this.#share) break;
            if (painted.length > 0 && this.source.now() - nowMs > this.budgetMs) break;
            this.#dirty.delete(item);
            item.paint();
            painted.push(sinceMs);
        }
        this.paints += painted.length;
        if (painted.length > 0) this.source.afterFrame(() => this.#note(painted));
        if (this.#dirty.size > 0) this.#requestNext();
    }

    #requestNext(): void {
        this.#requested = true;
        this.source.requestFrame((nowMs) => this.#frame(nowMs));
    }

    #adapt(nowMs: number): void {
        const gapMs = nowMs - this.#lastFrameMs;
        this.#lastFrameMs = nowMs;
        // A long gap is rest, not trouble.
        if (gapMs > 250) return;
        if (gapMs > frameMs * 1.4) this.#share = Math.max(this.smallestShare, Math.floor(this.#share * 0.8));
        else this.#share = Math.min(this.largestShare, this.#share + 1);
    }

    #note(painted: number[]): void {
        const nowMs = this.source.now();
        for (const sinceMs of painted) this.lags.push(nowMs - sinceMs);
        if (this.lags.length > 4096) this.lags.splice(0, this.lags.length - 2048);
    }
}

export function quantile(values: readonly number[], share: number): number | null {
    if (values.length === 0) return null;
    const sorted = [...values].sort((a, b) => a - b);
    return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * share))]!;
}
