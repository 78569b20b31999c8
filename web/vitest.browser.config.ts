import { defineConfig } from "vitest/config";

// One browser and one server serve all files, one after the other: frame rates would suffer from neighbours.
export default defineConfig({
    test: {
        include: ["tests/browser/**/*.test.ts"],
        environment: "node",
        globalSetup: ["tests/browser/setup.ts"],
        fileParallelism: false,
        testTimeout: 60_000,
        hookTimeout: 60_000,
        expect: { poll: { timeout: 10_000 } },
    },
});
