import { defineConfig } from "vitest/config";

const scenarios = {
    environment: "node" as const,
    testTimeout: 60_000,
    hookTimeout: 60_000,
    // A browser, a server and a page share a small machine: what passes only the second time is reported as such.
    retry: 1,
    expect: { poll: { timeout: 20_000, interval: 40 } },
};

// Most of a scenario is waiting: three files at a time, each with a browser of its own.
export default defineConfig({
    test: {
        maxWorkers: 3,
        projects: [
            {
                test: {
                    ...scenarios,
                    name: "server",
                    include: ["tests/browser/server/**/*.test.ts"],
                    globalSetup: ["tests/browser/setup_server.ts"],
                },
            },
            {
                test: {
                    ...scenarios,
                    name: "faults",
                    include: ["tests/browser/faults/**/*.test.ts"],
                    globalSetup: ["tests/browser/setup_mock.ts"],
                },
            },
        ],
    },
});
