import { existsSync, mkdirSync } from "node:fs";

declare module "vitest" {
    interface ProvidedContext {
        /** Where the server is, with a slash at the end. */
        base: string;
        /** Instruments that prices come for. */
        active: string[];
    }
}

const root = new URL("../..", import.meta.url).pathname;

export const chromiumPath = process.env.CHROMIUM ?? "/usr/bin/chromium";
export const page = `${root}dist`;
/** What the scenarios leave behind. */
export const screenshots = `${root}../build/page-screenshots/`;

export function requireBrowser(): void {
    if (existsSync(chromiumPath)) return;
    throw new Error(`there is no browser at ${chromiumPath}: install Debian's package chromium, or name another one by CHROMIUM`);
}

export function requirePage(): void {
    if (!existsSync(`${page}/index.html`)) throw new Error("the page is not built: npm run build");
}

export function prepareFolder(): void {
    mkdirSync(screenshots, { recursive: true });
}
