import type { Depth, Kind } from "../protocol/messages.ts";

export type View = "ladders" | "operations";
export type Theme = "auto" | "light" | "dark";
export type Palette = "blue-orange" | "teal-rose" | "green-red";

export const views: readonly View[] = ["ladders", "operations"];
export const themes: readonly Theme[] = ["auto", "light", "dark"];
export const palettes: readonly Palette[] = ["blue-orange", "teal-rose", "green-red"];

/** A panel is a scope: what it shows is what is subscribed for it. */
export interface PanelState {
    /** Tells panels of one page apart; not kept. */
    id: number;
    instrument: string;
    depth: Depth;
    intervalMs: number;
    kinds: readonly Kind[];
    /** Whether the numbers of orders are shown. */
    orders: boolean;
}

export interface ViewState {
    view: View;
    theme: Theme;
    palette: Palette;
    /** Whether the list of instruments, and the chart, are open. */
    list: boolean;
    chart: boolean;
    /** Index of the panel that the chart and the keys are about. */
    selected: number;
    /** The depth of new panels. */
    depth: Depth;
    panels: readonly PanelState[];
}

export const defaultState: ViewState = {
    view: "ladders",
    theme: "auto",
    palette: "blue-orange",
    list: true,
    chart: true,
    selected: 0,
    depth: 5,
    panels: [],
};

let lastId = 0;

export function newPanel(instrument: string, depth: Depth): PanelState {
    lastId += 1;
    return { id: lastId, instrument, depth, intervalMs: 0, kinds: ["book", "trades"], orders: false };
}

const kindLetters: readonly [Kind, string][] = [
    ["book", "b"],
    ["trades", "t"],
    ["fields", "f"],
];

/** Colons and commas are allowed in a hash, and easier to read than what stands for them. */
function escape(text: string): string {
    return encodeURIComponent(text).replaceAll("%3A", ":").replaceAll("%2F", "/").replaceAll("%20", "+");
}

function unescape(text: string): string {
    try {
        return decodeURIComponent(text.replaceAll("+", "%20"));
    } catch {
        return "";
    }
}

/** A text for the address, or for storage: what equals the default is left away. */
export function encodeState(state: ViewState): string {
    const parts: string[] = [];
    for (const name of ["view", "theme", "palette", "selected", "depth"] as const) {
        if (state[name] !== defaultState[name]) parts.push(`${name}=${state[name]}`);
    }
    for (const name of ["list", "chart"] as const) {
        if (state[name] !== defaultState[name]) parts.push(`${name}=${state[name] ? 1 : 0}`);
    }
    for (const panel of state.panels) parts.push(`panel=${encodePanel(panel)}`);
    return parts.join("&");
}

function encodePanel(panel: PanelState): string {
    const letters = kindLetters.filter(([kind]) => panel.kinds.includes(kind)).map(([, letter]) => letter);
    const flags = letters.join("") + (panel.orders ? "o" : "");
    return [escape(panel.instrument), panel.depth, panel.intervalMs, flags].join(",");
}

/** The opposite of `encodeState`. What is not understood is as if it were not there. */
export function decodeState(text: string): ViewState {
    const state: ViewState = { ...defaultState };
    const panels: PanelState[] = [];
    for (const part of text.replace(/^#/, "").split("&")) {
        const [name, value = ""] = part.split("=", 2);
        if (name === "view") state.view = oneOf(views, value, state.view);
        else if (name === "theme") state.theme = oneOf(themes, value, state.theme);
        else if (name === "palette") state.palette = oneOf(palettes, value, state.palette);
        else if (name === "list") state.list = value === "1";
        else if (name === "chart") state.chart = value === "1";
        else if (name === "selected") state.selected = wholeNumber(value, 10_000) ?? 0;
        else if (name === "depth") state.depth = decodeDepth(value) ?? state.depth;
        else if (name === "panel") {
            const panel = decodePanel(value);
            if (panel !== null) panels.push(panel);
        }
    }
    return { ...state, panels, selected: Math.min(state.selected, Math.max(0, panels.length - 1)) };
}

function decodePanel(text: string): PanelState | null {
    const [instrument = "", depth = "", interval = "", flags = "b"] = text.split(",").map(unescape);
    const level = decodeDepth(depth);
    if (!/^[^:]+:.+$/.test(instrument) || level === null) return null;
    const kinds = kindLetters.filter(([, letter]) => flags.includes(letter)).map(([kind]) => kind);
    return {
        ...newPanel(instrument, level),
        intervalMs: wholeNumber(interval, 60_000) ?? 0,
        kinds: kinds.length > 0 ? kinds : ["book"],
        orders: flags.includes("o"),
    };
}

function decodeDepth(text: string): Depth | null {
    if (text === "default" || text === "max") return text;
    const depth = wholeNumber(text, 100_000);
    return depth === null || depth === 0 ? null : depth;
}

function wholeNumber(text: string, largest: number): number | null {
    if (!/^\d{1,6}$/.test(text)) return null;
    const value = Number(text);
    return value <= largest ? value : null;
}

function oneOf<T extends string>(all: readonly T[], value: string, otherwise: T): T {
    return (all as readonly string[]).includes(value) ? (value as T) : otherwise;
}
