import { useEffect, useMemo, useState } from "preact/hooks";
import { ApiError } from "../api/http.ts";
import { askForMatches, type Entry, type Found, loadDirectory } from "../search/directory.ts";
import { search } from "../search/match.ts";
import { useStore } from "../state/store.ts";
import { useServices } from "./services.ts";

/** A key is pressed, and perhaps another one: the server is asked when the typing rests. */
const restMs = 150;

export interface Directory {
    /** What matches, best first. */
    found: readonly Entry[];
    /** How many there are, in words. */
    count: string;
}

/** The instruments that match: found in the page, or by the server when there are too many of them for a page. */
export function useDirectory(query: string): Directory {
    const services = useServices();
    const tokenVersion = useStore(services.tokenVersion);
    const { hello } = useStore(services.link);
    const [entries, setEntries] = useState<readonly Entry[]>([]);
    const [total, setTotal] = useState<number | null>(null);
    const [isTooLarge, setTooLarge] = useState(false);
    const [asked, setAsked] = useState<(Found & { query: string }) | null>(null);
    const complain = (error: unknown) => {
        if (error instanceof ApiError && error.status === 401) return;
        services.toasts.show(error instanceof Error ? error.message : String(error), "instruments");
    };

    // Again with each session: a server that starts has no directory yet.
    useEffect(() => {
        if (hello === null) return;
        let current = true;
        loadDirectory((loaded, all) => {
            if (!current) return;
            setEntries(loaded);
            setTotal(all);
        }).then(
            (isWhole) => current && setTooLarge(!isWhole),
            (error: unknown) => current && complain(error),
        );
        return () => void (current = false);
    }, [hello?.session, tokenVersion]);

    useEffect(() => {
        if (!isTooLarge || query.trim() === "") return setAsked(null);
        const abort = new AbortController();
        const timer = setTimeout(() => {
            askForMatches(query, abort.signal).then(
                (found) => setAsked({ ...found, query }),
                (error: unknown) => !abort.signal.aborted && complain(error),
            );
        }, restMs);
        return () => {
            clearTimeout(timer);
            abort.abort();
        };
    }, [query, isTooLarge, total]);

    const local = useMemo(() => (isTooLarge ? entries : search(entries, query)), [entries, query, isTooLarge]);
    if (isTooLarge && query.trim() !== "") {
        const count = asked?.query === query ? countOf(asked, total!) : "searching…";
        return { found: asked?.entries ?? [], count };
    }
    if (total === null) return { found: local, count: "loading…" };
    if (isTooLarge) return { found: local, count: `the first of ${total}: type to search` };
    if (entries.length < total) return { found: local, count: `loading ${entries.length} of ${total}` };
    return { found: local, count: `${local.length} of ${total} instruments` };
}

function countOf({ entries, isWhole }: Found, total: number): string {
    return isWhole ? `${entries.length} of ${total} instruments` : `${entries.length} of many: type more`;
}
