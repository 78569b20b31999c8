import { readFileSync } from "node:fs";
import { describe, expect, test } from "vitest";

const css = readFileSync(new URL("../../src/styles/tokens.css", import.meta.url), "utf8");

/** The colours that hold under all of these selectors, later ones before earlier ones. */
function colours(...selectors: string[]): Record<string, string> {
    const result: Record<string, string> = {};
    for (const [, selector, body] of css.matchAll(/(:root[^{]*?)\s*\{([^}]*)\}/g)) {
        if (!selectors.includes(selector!)) continue;
        for (const [, name, value] of body!.matchAll(/--([a-z-]+):\s*(#[0-9a-f]{6})/g)) result[name!] = value!;
    }
    return result;
}

function luminance(colour: string): number {
    const [red, green, blue] = [1, 3, 5]
        .map((at) => parseInt(colour.slice(at, at + 2), 16) / 255)
        .map((part) => (part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4));
    return 0.2126 * red! + 0.7152 * green! + 0.0722 * blue!;
}

function contrast(a: string, b: string): number {
    const [dark, light] = [luminance(a), luminance(b)].sort((x, y) => x - y);
    return (light! + 0.05) / (dark! + 0.05);
}

const palettes = ["blue-orange", "teal-rose", "green-red"];
const cases = palettes.flatMap((palette) => ["light", "dark"].map((theme) => [palette, theme] as const));

describe.each(cases)("the colours %s, %s", (palette, theme) => {
    const selectors = [":root", `:root[data-palette="${palette}"]`];
    if (theme === "dark") selectors.push(':root[data-theme="dark"]', `:root[data-theme="dark"][data-palette="${palette}"]`);
    const all = colours(...selectors);

    test.each([
        ["text", "surface"],
        ["text", "back"],
        ["text", "raised"],
        ["muted", "surface"],
        ["muted", "back"],
        ["muted", "raised"],
        ["bid", "surface"],
        ["ask", "surface"],
        ["bid", "bid-tint"],
        ["ask", "ask-tint"],
        ["text", "bid-tint"],
        ["text", "ask-tint"],
        ["muted", "bid-tint"],
        ["muted", "ask-tint"],
        ["warning", "warning-back"],
        ["bad", "surface"],
        ["accent", "surface"],
    ])("let %s be read on %s", (text, back) => {
        expect(contrast(all[text]!, all[back]!)).toBeGreaterThanOrEqual(4.5);
    });
});
