/** Time, as far as the protocol needs it: tests move it by hand. */
export interface Clock {
    now(): number;
    after(ms: number, action: () => void): () => void;
}

export const browserClock: Clock = {
    now: () => performance.now(),
    after(ms, action) {
        const timer = setTimeout(action, ms);
        return () => clearTimeout(timer);
    },
};

/** How long to wait before the next attempt: doubles from `firstMs` to `lastMs`, with a little of chance in it. */
export function backOff(attempt: number, firstMs: number, lastMs: number, chance = Math.random()): number {
    const full = Math.min(lastMs, firstMs * 2 ** Math.min(attempt, 20));
    return Math.round(full * (0.75 + chance / 4));
}
