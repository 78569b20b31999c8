import { defineConfig } from "vitest/config";

// Needs a machine that has nothing else to do: a frame rate is measured.
export default defineConfig({
    test: {
        include: ["tests/performance/**/*.test.ts"],
        environment: "node",
        testTimeout: 60_000,
        hookTimeout: 60_000,
    },
});
