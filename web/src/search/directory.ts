import { getJson } from "../api/http.ts";

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

export type GetPage = (path: string) => Promise<unknown>;

const pageSize = 1000;
/** Above this the page would hold more than anybody can look at: the rest is found by asking the server. */
const largestDirectory = 50_000;

export function makeEntry(market: string, symbol: string): Entry {
    const instrument = `${market}:${symbol}`;
    return { instrument, market, symbol, text: instrument.toLowerCase() };
}

/** Reads all instruments, page by page; `onProgress` gets what is there so far. */
export async function loadDirectory(
    onProgress: (entries: readonly Entry[], total: number) => void,
    get: GetPage = getJson,
    search = "",
): Promise<void> {
    const entries: Entry[] = [];
    let total = Infinity;
    while (entries.length < Math.min(total, largestDirectory)) {
        const query = search === "" ? "" : `&search=${encodeURIComponent(search)}`;
        const page = (await get(`/api/v1/instruments?limit=${pageSize}&offset=${entries.length}${query}`)) as Page;
        for (const one of page.instruments) {
            const [market, symbol] = typeof one === "string" ? split(one) : [one.market, one.symbol];
            entries.push(makeEntry(market, symbol));
        }
        total = page.instruments.length === 0 ? entries.length : page.total;
        onProgress([...entries], total);
    }
}

function split(instrument: string): [string, string] {
    const colon = instrument.indexOf(":");
    return [instrument.slice(0, colon), instrument.slice(colon + 1)];
}
