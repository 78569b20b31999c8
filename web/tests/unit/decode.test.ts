import { describe, expect, test } from "vitest";
import { decode } from "../../src/protocol/decode.ts";
import { image, update } from "./builders.ts";

describe("decode", () => {
    test("takes several objects of one message, in order", () => {
        const { messages } = decode([image(), update()].map((one) => JSON.stringify(one)).join("\n"));
        expect(messages.map(({ type }) => type)).toEqual(["image", "update"]);
    });

    test("ignores types that it does not know", () => {
        const { messages, broken, unknown } = decode('{"type":"weather","sun":true}');
        expect([messages.length, broken.length, unknown]).toEqual([0, 0, 1]);
    });

    test("reports lines that are no JSON, and takes the others", () => {
        const { messages, broken } = decode(`{"type":\n${JSON.stringify(image())}\n42\n{"price":1}`);
        expect(messages.length).toBe(1);
        expect(broken).toEqual(['{"type":', "42", '{"price":1}']);
    });

    test("does not let an image without levels through", () => {
        const { bids: _bids, ...rest } = image();
        expect(decode(JSON.stringify(rest)).broken.length).toBe(1);
    });

    test("does not let an update without its previous one through", () => {
        const { previous: _previous, ...rest } = update();
        expect(decode(JSON.stringify(rest)).broken.length).toBe(1);
    });

    test("keeps decimals as the text that they are", () => {
        const text = JSON.stringify(image({ bids: [["0.10000000000000000001", "1.50", "0", null]] }));
        const [message] = decode(text).messages;
        expect(message).toMatchObject({ bids: [["0.10000000000000000001", "1.50", "0", null]] });
    });
});

describe("A message of many lines", () => {
    const line = '{"type":"pong","request":"a","time_ns":"1"}';

    test("loses only the line that is broken", () => {
        const { messages, broken } = decode(`${line}\nnonsense\n${line}`);
        expect([messages.length, broken]).toEqual([2, ["nonsense"]]);
    });

    test("names the line that is JSON and no object with a type", () => {
        const { messages, broken } = decode(`${line}\n[1,2]\n${line}`);
        expect([messages.length, broken]).toEqual([2, ["[1,2]"]]);
    });
});
