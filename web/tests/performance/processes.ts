// What processes cost, from /proc: processor time does not depend on who else uses the machine; elapsed time does.
import { readdirSync, readFileSync } from "node:fs";

/** What a tick of /proc is worth; 100 a second on every Linux that has a browser. */
const tickMs = 10;

function fields(path: string): { name: string; rest: string[] } {
    const text = readFileSync(path, "utf8");
    const end = text.lastIndexOf(")");
    return { name: text.slice(text.indexOf("(") + 1, end), rest: text.slice(end + 2).split(" ") };
}

function cpuMs(path: string): number {
    const { rest } = fields(path);
    return (Number(rest[11]) + Number(rest[12])) * tickMs;
}

/** All processes below `root`, itself included. */
function family(root: number): number[] {
    const parents = new Map<number, number>();
    for (const name of readdirSync("/proc")) {
        if (!/^\d+$/.test(name)) continue;
        try {
            parents.set(Number(name), Number(fields(`/proc/${name}/stat`).rest[1]));
        } catch {
            // It has ended meanwhile.
        }
    }
    const result = [root];
    for (let i = 0; i < result.length; i += 1) {
        for (const [child, parent] of parents) if (parent === result[i]) result.push(child);
    }
    return result;
}

export interface BrowserCpu {
    /** Of the page's main thread: script, style, layout, paint. */
    mainMs: number;
    /** Of all processes of the browser together. */
    totalMs: number;
    /** By process type and thread. */
    threads: Map<string, number>;
}

export function readBrowserCpu(root: number): BrowserCpu {
    const result: BrowserCpu = { mainMs: 0, totalMs: 0, threads: new Map() };
    for (const pid of family(root)) {
        try {
            const type = /--type=([\w-]+)/.exec(readFileSync(`/proc/${pid}/cmdline`, "latin1"))?.[1] ?? "browser";
            result.totalMs += cpuMs(`/proc/${pid}/stat`);
            for (const task of readdirSync(`/proc/${pid}/task`)) {
                const path = `/proc/${pid}/task/${task}/stat`;
                const isMain = task === String(pid);
                const name = `${type} ${isMain ? "main" : fields(path).name}`;
                const spent = cpuMs(path);
                if (type === "renderer" && isMain) result.mainMs += spent;
                result.threads.set(name, (result.threads.get(name) ?? 0) + spent);
            }
        } catch {
            // It has ended meanwhile.
        }
    }
    return result;
}
