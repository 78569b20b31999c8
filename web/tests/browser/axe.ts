import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import type { Page } from "playwright-core";

const source = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");

/** What axe finds, each with where it is. */
export async function axeFindings(page: Page): Promise<string[]> {
    await page.evaluate(source);
    return page.evaluate(async () => {
        interface Axe {
            run(): Promise<{ violations: { id: string; nodes: { target: string[]; failureSummary: string }[] }[] }>;
        }
        const { violations } = await (window as unknown as { axe: Axe }).axe.run();
        return violations.flatMap(({ id, nodes }) => nodes.slice(0, 3).map((node) => `${id}: ${node.target.join(" ")} ${node.failureSummary}`));
    });
}
