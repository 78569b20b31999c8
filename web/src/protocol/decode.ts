import type { ServerMessage } from "./messages.ts";

const knownTypes = new Set([
    "hello",
    "authenticated",
    "result",
    "error",
    "image",
    "update",
    "trades",
    "fields",
    "renamed",
    "conflated",
    "gap",
    "pong",
]);

export interface Decoded {
    messages: ServerMessage[];
    /** Lines that are no JSON object with a `type`: broken, in this protocol. */
    broken: string[];
    /** Objects of types that this page does not know: to be ignored. */
    unknown: number;
}

/** Takes one WebSocket message apart: JSON objects, one on each line. */
export function decode(data: string): Decoded {
    const result: Decoded = { messages: [], broken: [], unknown: 0 };
    const all = parseAll(data);
    if (all !== null) {
        all.forEach((object, index) => sortIn(object, result, () => data.split("\n")[index] ?? data));
        return result;
    }
    let begin = 0;
    while (begin <= data.length) {
        let end = data.indexOf("\n", begin);
        if (end < 0) end = data.length;
        decodeLine(begin === 0 && end === data.length ? data : data.slice(begin, end), result);
        begin = end + 1;
    }
    return result;
}

/** All lines at once: that costs less than one after the other. Null: something in there is not JSON. */
function parseAll(data: string): unknown[] | null {
    try {
        // A line break stands between objects only: inside a text JSON has it escaped.
        return JSON.parse(`[${data.replaceAll("\n", ",")}]`) as unknown[];
    } catch {
        return null;
    }
}

function decodeLine(line: string, result: Decoded): void {
    let object: unknown;
    try {
        object = JSON.parse(line);
    } catch {
        result.broken.push(line);
        return;
    }
    sortIn(object, result, () => line);
}

function sortIn(object: unknown, result: Decoded, line: () => string): void {
    const type = typeof object === "object" && object !== null ? (object as { type?: unknown }).type : undefined;
    if (typeof type !== "string") result.broken.push(line());
    else if (!knownTypes.has(type)) result.unknown += 1;
    else if (isComplete(type, object as Record<string, unknown>)) result.messages.push(object as ServerMessage);
    else result.broken.push(line());
}

/** The members without which an object would do harm further on. */
function isComplete(type: string, object: Record<string, unknown>): boolean {
    switch (type) {
        case "image":
        case "update":
            return (
                typeof object.instrument === "string" &&
                typeof object.sequence === "number" &&
                typeof object.epoch === "number" &&
                typeof object.depth === "number" &&
                (type === "image" || typeof object.previous === "number") &&
                Array.isArray(object.bids) &&
                Array.isArray(object.asks)
            );
        case "trades":
            return typeof object.instrument === "string" && Array.isArray(object.trades);
        case "hello":
            return typeof object.limits === "object" && object.limits !== null;
        case "result":
            return typeof object.code === "number" && typeof object.request === "string";
        case "renamed":
            return typeof object.instrument === "string" && typeof object.symbol === "string";
        default:
            return true;
    }
}
