import { type ChildProcess, spawn } from "node:child_process";

const root = new URL("../..", import.meta.url).pathname;
const children: ChildProcess[] = [];

/** Starts the mock server; resolves with its address. */
export function startMock(...options: string[]): Promise<string> {
    const child = spawn(`${root}node_modules/.bin/tsx`, [`${root}tests/mock_server.ts`, "--port", "0", ...options]);
    children.push(child);
    return new Promise((resolve, reject) => {
        child.stdout.once("data", (text: Buffer) => resolve(text.toString().trim()));
        child.stderr.on("data", (text: Buffer) => process.stderr.write(text));
        child.once("exit", (code) => reject(new Error(`the mock server has ended with ${code}`)));
    });
}

export function stopMocks(): void {
    for (const child of children.splice(0)) child.kill();
}
