import { type ChildProcess, spawn } from "node:child_process";
import { copyFileSync, cpSync, existsSync, linkSync, mkdirSync, mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import type { TestProject } from "vitest/node";
import * as needs from "./needs.ts";

const root = new URL("../../..", import.meta.url).pathname;
const binary = process.env.PRICE_SERVER_BINARY ?? `${root}build/dev/bin/price_server`;
const data = process.env.PRICE_SERVER_DATA ?? `${root}../shared/data`;

const files = ["spot", "usdm", "coinm"].map((name) => `three_segments/${name}.csv.zst`);
files.push(...["bitflyer", "bitmex", "krakenfutures", "poloniex"].map((name) => `many_instruments/${name}.csv.zst`));

/** Those of the first file names move all the time; the others' recordings are half as long, and rest until it loops. */
const active = [
    "USDM:BTCUSDT",
    "COINM:BTCUSD_PERP",
    "SPOT:BTCUSDT",
    "USDM:ETHUSDT",
    "COINM:ETHUSD_PERP",
    "SPOT:ETHUSDT",
    "KRAKENFUT:PI_ETHUSD",
    "BITMEX:XBTUSD",
    "BITFLYER:FX_BTC_JPY",
    "POLONIEX:BCH_BTC",
    "KRAKENFUT:FI_XBTUSD_210730",
    "BITFLYER:ETH_JPY",
];
/** Has one image and then nothing: held by the server itself, it is stale half of the time. */
const silent = "POLONIEX:DYP_USDT";

function requireServer(): void {
    if (!existsSync(binary)) {
        throw new Error(`there is no price_server at ${binary}: build it, or name it by PRICE_SERVER_BINARY`);
    }
    const missing = files.filter((file) => !existsSync(join(data, file)));
    if (missing.length > 0) throw new Error(`there is no ${missing.join(", ")} in ${data}: name the folder by PRICE_SERVER_DATA`);
}

/** The server takes the page from the folder beside its own: it gets a folder with this page. */
function install(): string {
    const folder = mkdtempSync(join(tmpdir(), "price-server-page-"));
    mkdirSync(join(folder, "bin"));
    const program = join(folder, "bin", "price_server");
    try {
        linkSync(binary, program);
    } catch {
        copyFileSync(binary, program);
    }
    cpSync(needs.page, join(folder, "web"), { recursive: true });
    return folder;
}

function start(folder: string): Promise<{ base: string; server: ChildProcess }> {
    // It ends by itself in the end, should these tests be killed.
    const options = ["--loop", "--port", "0", "--watch", silent, "--log-level", "30", "--duration", "1800"];
    const server = spawn(join(folder, "bin", "price_server"), ["--replay", ...files.map((file) => join(data, file)), ...options], {
        stdio: ["ignore", "ignore", "pipe"],
    });
    process.once("exit", () => server.kill());
    return new Promise((resolve, reject) => {
        let said = "";
        server.stderr!.on("data", (text: Buffer) => {
            said += text.toString();
            const address = /page and prices at (http:\S+)/.exec(said);
            if (address !== null) resolve({ base: address[1]!, server });
        });
        server.once("exit", (code) => reject(new Error(`${binary} has ended with ${code}: ${said}`)));
    });
}

/** The scenarios of good days: the real server, playing recorded prices over and over. */
export default async function setup({ provide }: TestProject): Promise<() => Promise<void>> {
    needs.requireBrowser();
    needs.requirePage();
    requireServer();
    needs.prepareFolder();
    const folder = install();
    const { base, server } = await start(folder);
    provide("base", base);
    provide("active", active);
    return async () => {
        server.kill("SIGTERM");
        if (server.exitCode === null && server.signalCode === null) await new Promise((resolve) => server.once("exit", resolve));
        rmSync(folder, { recursive: true });
        // A server that has crashed meanwhile, or cannot stop, is a finding too.
        if (server.exitCode !== 0) throw new Error(`the server has ended with ${server.exitCode ?? server.signalCode}`);
    };
}
