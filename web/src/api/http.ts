import { storedToken } from "../state/token.ts";

/** An answer of the HTTP interface that is none: what is wrong, and where. */
export class ApiError extends Error {
    constructor(
        readonly status: number,
        readonly code: string,
        readonly where: string,
        message: string,
    ) {
        super(message);
    }
}

const tooManyRequests = 429;
const mostTries = 5;

/** How long a server that gets too many requests wants to be left alone, in milliseconds. */
function pauseOf(response: Response): number {
    const seconds = Number(response.headers.get("Retry-After") ?? "1");
    return 1000 * (seconds >= 0 && seconds <= 60 ? seconds : 1);
}

/** Asks again when requests come too fast, for a while: the pages of a long list are asked for one after another. */
async function ask(path: string, signal?: AbortSignal): Promise<Response> {
    const token = storedToken();
    const headers: HeadersInit = token === null ? {} : { Authorization: `Bearer ${token}` };
    for (let tries = 1; ; ++tries) {
        const response = await fetch(path, { headers, cache: "no-store", ...(signal ? { signal } : {}) });
        if (response.status !== tooManyRequests || tries === mostTries) return response;
        await new Promise((resolve) => setTimeout(resolve, pauseOf(response)));
        signal?.throwIfAborted();
    }
}

export async function getJson<T>(path: string, signal?: AbortSignal): Promise<T> {
    let response: Response;
    try {
        response = await ask(path, signal);
    } catch (error) {
        if (signal?.aborted) throw error;
        throw new ApiError(0, "unreachable", path, "the server cannot be reached");
    }
    const body: unknown = await response.json().catch(() => null);
    if (!response.ok) {
        const error = (body as { error?: { code?: string; where?: string | null; message?: string } } | null)?.error;
        const message = error?.message ?? `the server answers ${response.status}`;
        throw new ApiError(response.status, error?.code ?? String(response.status), error?.where ?? path, message);
    }
    if (body === null) throw new ApiError(response.status, "bad_json", path, "the answer is not JSON");
    return body as T;
}
