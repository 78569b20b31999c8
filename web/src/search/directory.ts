import { getJson } from "../api/http.ts";
import { search, wordsOf } from "./match.ts";

export interface Entry {
    /** `"MARKET:SYMBOL"` */
    instrument: string;
    market: string;
    symbol: string;
    /** In lower case, for the search. */
    text: string;
}

interface Page {
    total: number;
    instruments: (string | { market: string; symbol: string })[];
}

export type GetPage = (path: string, signal?: AbortSignal) => Promise<unknown>;

const pageSize = 1000;
/** Above this the page would hold more than it needs: what is wanted is found by asking the server. */
export const largestDirectory = 50_000;

export function makeEntry(market: string, symbol: string): Entry {
    const instrument = `${market}:${symbol}`;
    return { instrument, market, symbol, text: instrument.toLowerCase() };
}

/**
 * Reads all instruments, page by page; `onProgress` gets what is there so far. False: there are too many of them, and
 * `onProgress` has got only the first.
 */
export async function loadDirectory(
    onProgress: (entries: readonly Entry[], total: number) => void,
    get: GetPage = getJson,
): Promise<boolean> {
    const entries: Entry[] = [];
    let total = Infinity;
    while (entries.length < total) {
        const page = (await get(`/api/v1/instruments?limit=${pageSize}&offset=${entries.length}`)) as Page;
        entries.push(...readEntries(page));
        total = page.instruments.length === 0 ? entries.length : page.total;
        onProgress([...entries], total);
        if (total > largestDirectory) return false;
    }
    return true;
}

export interface Found {
    entries: readonly Entry[];
    /** False: there are more than these. */
    isWhole: boolean;
}

/**
 * Asks the server what matches. It looks for one text, so it gets the longest word, which leaves the least; the other
 * words are looked for in what comes.
 */
export async function askForMatches(query: string, signal?: AbortSignal, get: GetPage = getJson): Promise<Found> {
    const longest = wordsOf(query).reduce((best, word) => (word.length > best.length ? word : best), "");
    const path = `/api/v1/instruments?limit=${pageSize}&offset=0&search=${encodeURIComponent(longest)}`;
    const page = (await get(path, signal)) as Page;
    return { entries: search(readEntries(page), query), isWhole: page.instruments.length >= page.total };
}

function readEntries(page: Page): Entry[] {
    return page.instruments.map((one) => {
        const [market, symbol] = typeof one === "string" ? split(one) : [one.market, one.symbol];
        return makeEntry(market, symbol);
    });
}

function split(instrument: string): [string, string] {
    const colon = instrument.indexOf(":");
    return [instrument.slice(0, colon), instrument.slice(colon + 1)];
}
