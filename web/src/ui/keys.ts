import { quoteOf } from "../book/history.ts";
import type { Depth, Kind } from "../protocol/messages.ts";
import { depths, intervals } from "./scope_controls.tsx";
import { helpOpen } from "./help.tsx";
import type { Services } from "./services.ts";

export function listenToKeys(services: Services): () => void {
    const listener = (event: KeyboardEvent) => {
        if (event.ctrlKey || event.metaKey || event.defaultPrevented || isTyping(event.target)) return;
        if (document.querySelector("dialog[open]") !== null) return;
        if (pageKey(services, event) || panelKey(services, event)) event.preventDefault();
    };
    document.addEventListener("keydown", listener);
    return () => document.removeEventListener("keydown", listener);
}

function isTyping(target: EventTarget | null): boolean {
    return target instanceof HTMLElement && target.matches("input, select, textarea");
}

function pageKey(services: Services, event: KeyboardEvent): boolean {
    const { view, chart, list } = services.view.value;
    switch (event.key) {
        case "/":
            services.view.update({ view: "ladders", list: true });
            requestAnimationFrame(() => document.querySelector<HTMLElement>("#search")?.focus());
            return true;
        case "1":
            services.view.update({ view: "ladders" });
            return true;
        case "2":
            services.view.update({ view: "operations" });
            return true;
        case "?":
            helpOpen.set(true);
            return true;
        case "c":
            if (view === "ladders") services.view.update({ chart: !chart });
            return true;
        case "l":
            if (view === "ladders") services.view.update({ list: !list });
            return true;
        default:
            return false;
    }
}

function panelKey(services: Services, event: KeyboardEvent): boolean {
    const { view, panels, selected } = services.view.value;
    const panel = panels[selected];
    if (view !== "ladders" || panel === undefined) return false;
    const inPanel = event.target instanceof Element && event.target.closest(".panel") !== null;
    switch (event.key) {
        case "ArrowLeft":
        case "ArrowRight": {
            const by = event.key === "ArrowRight" ? 1 : -1;
            if (event.altKey) services.movePanel(panel.id, by);
            else if (inPanel) select(services, selected + by);
            focusSelected(services);
            return inPanel || event.altKey;
        }
        case "ArrowUp":
        case "ArrowDown":
            if (!inPanel || scrolls(event.target)) return false;
            select(services, selected + (event.key === "ArrowDown" ? 1 : -1) * panelsInRow());
            focusSelected(services);
            return true;
        case "+":
        case "-":
            services.changePanel(panel.id, { depth: nextDepth(panel.depth, event.key === "+" ? 1 : -1) });
            return true;
        case "i":
            services.changePanel(panel.id, { intervalMs: intervals[(intervals.indexOf(panel.intervalMs) + 1) % intervals.length]! });
            return true;
        case "t":
            services.changePanel(panel.id, { kinds: toggleTrades(panel.kinds) });
            return true;
        case "s":
            services.announcement.set(describe(services, panel.id));
            return true;
        case "Delete":
            services.closePanel(panel.id);
            focusSelected(services);
            return true;
        default:
            return false;
    }
}

function select(services: Services, index: number): void {
    if (index >= 0 && index < services.view.value.panels.length) services.view.update({ selected: index });
}

function focusSelected(services: Services): void {
    const { panels, selected } = services.view.value;
    const id = panels[selected]?.id;
    requestAnimationFrame(() => document.querySelector<HTMLElement>(`[data-panel="${id}"]`)?.focus());
}

function scrolls(target: EventTarget | null): boolean {
    return target instanceof Element && target.closest(".ladder-frame[tabindex]") !== null;
}

function panelsInRow(): number {
    const tops = [...document.querySelectorAll<HTMLElement>(".panel")].map((panel) => panel.offsetTop);
    const second = tops.findIndex((top) => top !== tops[0]);
    return second < 0 ? tops.length : second;
}

function nextDepth(depth: Depth, by: number): Depth {
    const numbers = depths.filter((one): one is number => typeof one === "number");
    if (typeof depth !== "number") return by < 0 ? numbers.at(-1)! : depth;
    const next = by > 0 ? numbers.find((one) => one > depth) : numbers.findLast((one) => one < depth);
    return next ?? depth;
}

function toggleTrades(kinds: readonly Kind[]): readonly Kind[] {
    if (!kinds.includes("trades")) return [...kinds, "trades"];
    return kinds.length > 1 ? kinds.filter((kind) => kind !== "trades") : kinds;
}

/** The best prices as a sentence. */
function describe(services: Services, id: number): string {
    const subscription = services.feeds.get(id)?.subscription;
    if (!subscription?.book.hasImage) return "no prices yet";
    const { book, data, instrument } = subscription;
    const side = (name: string, levels: typeof book.bids) => {
        const level = levels[0];
        return level === undefined ? `no ${name}` : `${name} ${level[0]}, quantity ${level[1]}, implied ${level[2]}`;
    };
    const parts = [instrument, side("bid", book.bids), side("ask", book.asks)];
    const quote = quoteOf(book);
    if (quote !== null) parts.push(`spread ${quote.spread}`);
    if (data.tape.last !== undefined) parts.push(`last ${data.tape.last.price}`);
    if (book.stale.length > 0) parts.push(`stale: ${book.stale.join(", ")}`);
    return parts.join("; ");
}
