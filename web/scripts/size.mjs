// What a first visit costs: every file of the built page, gzipped, and the sum. Fails above the limit.
import { readdirSync, readFileSync, statSync } from "node:fs";
import { join } from "node:path";
import { gzipSync } from "node:zlib";

const limit = 60 * 1024;
const root = new URL("../dist", import.meta.url).pathname;
let total = 0;
for (const name of readdirSync(root, { recursive: true }).sort()) {
    const file = join(root, name);
    if (!statSync(file).isFile()) continue;
    const size = gzipSync(readFileSync(file), { level: 9 }).length;
    total += size;
    console.log(`${String(size).padStart(7)}  ${name}`);
}
console.log(`${String(total).padStart(7)}  of ${limit}`);
process.exitCode = total < limit ? 0 : 1;
