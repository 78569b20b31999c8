/** What is drawn rather than styled takes its colours from here: those of the theme, by the names that tokens.css has. */
export interface Colours {
    surface: string;
    text: string;
    muted: string;
    bid: string;
    bidTint: string;
    ask: string;
    askTint: string;
}

let known: Colours | null = null;

export function colours(): Colours {
    if (known !== null) return known;
    const style = getComputedStyle(document.documentElement);
    const read = (name: string) => style.getPropertyValue(name).trim();
    known = {
        surface: read("--surface"),
        text: read("--text"),
        muted: read("--muted"),
        bid: read("--bid"),
        bidTint: read("--bid-tint"),
        ask: read("--ask"),
        askTint: read("--ask-tint"),
    };
    return known;
}

/** Another theme: who has drawn draws again. */
export function forgetColours(): void {
    known = null;
}
