import { afterEach, beforeEach, describe, expect, test, vi } from "vitest";
import { ApiError, getJson } from "../../src/api/http.ts";

const tooMany = () =>
    new Response(JSON.stringify({ error: { code: "too_many_requests", where: null, message: "too fast" } }), {
        status: 429,
        headers: { "Retry-After": "2" },
    });

describe("A request to the server", () => {
    beforeEach(() => {
        vi.useFakeTimers();
        vi.stubGlobal("localStorage", { getItem: () => null });
        vi.stubGlobal("sessionStorage", { getItem: () => null });
    });
    afterEach(() => {
        vi.useRealTimers();
        vi.unstubAllGlobals();
    });

    test("that came too fast is made again when the server says", async () => {
        const fetched = vi.fn().mockResolvedValueOnce(tooMany()).mockResolvedValueOnce(new Response('{"a":1}'));
        vi.stubGlobal("fetch", fetched);
        const answer = getJson<{ a: number }>("/api/v1/status");
        await vi.advanceTimersByTimeAsync(1999);
        expect(fetched).toHaveBeenCalledTimes(1);
        await vi.advanceTimersByTimeAsync(1);
        expect(await answer).toEqual({ a: 1 });
        expect(fetched).toHaveBeenCalledTimes(2);
    });

    test("that always comes too fast fails with what the server says", async () => {
        const fetched = vi.fn().mockImplementation(() => Promise.resolve(tooMany()));
        vi.stubGlobal("fetch", fetched);
        const answer = getJson("/api/v1/status").catch((error: unknown) => error);
        await vi.advanceTimersByTimeAsync(60_000);
        const error = (await answer) as ApiError;
        expect(error).toBeInstanceOf(ApiError);
        expect([error.status, error.code]).toEqual([429, "too_many_requests"]);
        expect(fetched).toHaveBeenCalledTimes(5);
    });

    test("that is given up while it waits is not made again", async () => {
        const fetched = vi.fn().mockImplementation(() => Promise.resolve(tooMany()));
        vi.stubGlobal("fetch", fetched);
        const abort = new AbortController();
        const answer = getJson("/api/v1/status", abort.signal).catch((error: unknown) => error);
        await vi.advanceTimersByTimeAsync(100);
        abort.abort();
        await vi.advanceTimersByTimeAsync(60_000);
        expect(await answer).not.toBeInstanceOf(ApiError);
        expect(fetched).toHaveBeenCalledTimes(1);
    });
});
