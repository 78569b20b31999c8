import { type ChildProcess, spawn } from "node:child_process";

const root = new URL("../..", import.meta.url).pathname;
const children: ChildProcess[] = [];

/** Starts a program of this folder that says its address in its first line; resolves with the address. */
export function startProcess(program: string, ...options: string[]): Promise<string> {
    // By the channel it notices when whoever has started it is gone, however that came about.
    const stdio = ["ignore", "pipe", "pipe", "ipc"] as const;
    const child = spawn(process.execPath, ["--import", "tsx", `${root}${program}`, ...options], { cwd: root, stdio: [...stdio] });
    children.push(child);
    return new Promise((resolve, reject) => {
        child.stdout!.once("data", (text: Buffer) => resolve(text.toString().trim()));
        child.stderr!.on("data", (text: Buffer) => process.stderr.write(text));
        child.once("exit", (code) => reject(new Error(`${program} has ended with ${code}`)));
    });
}

export function startMock(...options: string[]): Promise<string> {
    return startProcess("tests/mock_server.ts", "--port", "0", ...options);
}

export function stopProcesses(): void {
    for (const child of children.splice(0)) child.kill();
}
