import type { Store } from "./store.ts";
import { decodeState, encodeState, type ViewState } from "./view_state.ts";

const key = "price-server.view";
const delayMs = 150;

/** Nobody has been here with this browser, and the address asks for nothing. */
export function isFirstVisit(): boolean {
    try {
        return location.hash.length <= 1 && localStorage.getItem(key) === null;
    } catch {
        return false;
    }
}

/** The address wins: who opens a link wants what is in it. Otherwise the page is as it was left. */
export function loadState(): ViewState {
    if (location.hash.length > 1) return decodeState(location.hash);
    try {
        return decodeState(localStorage.getItem(key) ?? "");
    } catch {
        return decodeState("");
    }
}

/** Writes each change to the address and to the storage, and follows an address that is changed by hand. */
export function keepState(store: Store<ViewState>): void {
    let timer: ReturnType<typeof setTimeout> | undefined;
    const saveNow = () => {
        clearTimeout(timer);
        timer = undefined;
        save(store.value);
    };
    store.watch(() => {
        clearTimeout(timer);
        timer = setTimeout(saveNow, delayMs);
    });
    addEventListener("hashchange", () => {
        if (location.hash.slice(1) !== encodeState(store.value)) store.set(decodeState(location.hash));
    });
    // What nobody has touched is not kept: the next visit is a first one again.
    addEventListener("pagehide", () => timer !== undefined && saveNow());
}

function save(state: ViewState): void {
    const text = encodeState(state);
    history.replaceState(null, "", `#${text}`);
    try {
        localStorage.setItem(key, text);
    } catch {
        // A browser without storage: the address still has it.
    }
}
