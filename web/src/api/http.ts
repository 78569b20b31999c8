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

export async function getJson<T>(path: string, signal?: AbortSignal): Promise<T> {
    const token = storedToken();
    const headers: HeadersInit = token === null ? {} : { Authorization: `Bearer ${token}` };
    let response: Response;
    try {
        response = await fetch(path, { headers, cache: "no-store", ...(signal ? { signal } : {}) });
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
