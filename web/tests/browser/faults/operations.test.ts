import { describe, expect, test } from "vitest";
import { openPage } from "../harness.ts";

describe("The operations view", () => {
    test("says what it may not see", async () => {
        const page = await openPage({
            hash: "#view=operations",
            expected: /403/,
            prepare: (one) =>
                one.route("**/api/v1/status", (route) =>
                    route.fulfill({ status: 403, json: { error: { code: "forbidden", where: "/api/v1/status", message: "not with this token" } } }),
                ),
        });
        await expect.poll(() => page.innerText('[role="alert"]')).toContain("not with this token");
    });
});
