import type { Entry } from "./directory.ts";

/**
 * The entries that have every word of the query, best first: the symbol itself, then symbols that begin with the first
 * word, then those with a part that does (`MAR27` in `GOLD-MAR27`), then the rest; each group in the directory's order.
 */
export function search(entries: readonly Entry[], query: string): readonly Entry[] {
    const words = wordsOf(query);
    if (words.length === 0) return entries;
    const groups: Entry[][] = [[], [], [], []];
    for (const entry of entries) {
        if (words.every((word) => entry.text.includes(word))) groups[rank(entry, words[0]!)]!.push(entry);
    }
    return groups.flat();
}

export function wordsOf(query: string): string[] {
    return query.toLowerCase().split(/\s+/).filter(Boolean);
}

function rank(entry: Entry, word: string): number {
    const symbol = entry.text.slice(entry.market.length + 1);
    if (symbol === word || entry.text === word) return 0;
    if (symbol.startsWith(word)) return 1;
    const at = entry.text.indexOf(word);
    return at === 0 || !/[a-z0-9]/.test(entry.text[at - 1]!) ? 2 : 3;
}

export interface Window {
    first: number;
    count: number;
}

/** Which rows of a long list are to exist: what is seen, and a few on each side. */
export function visibleRows(scrollTop: number, height: number, rowHeight: number, total: number, spare = 6): Window {
    const first = Math.max(0, Math.min(Math.floor(scrollTop / rowHeight) - spare, total));
    const last = Math.min(total, Math.ceil((scrollTop + height) / rowHeight) + spare);
    return { first, count: Math.max(0, last - first) };
}
