import { describe, expect, test } from "vitest";
import { decodeState, defaultState, encodeState, newPanel, type ViewState } from "../../src/state/view_state.ts";

function withoutIds(state: ViewState): unknown {
    return { ...state, panels: state.panels.map(({ id: _id, ...rest }) => rest) };
}

describe("the state in the address", () => {
    test("comes back as it was", () => {
        const state: ViewState = {
            ...defaultState,
            view: "operations",
            theme: "dark",
            palette: "teal-rose",
            list: false,
            selected: 1,
            depth: "max",
            panels: [
                { ...newPanel("USDM:BTCUSDT", 5), intervalMs: 250, kinds: ["book", "fields"] },
                { ...newPanel("SIM:GOLD/SILVER, A&B=50% #1", "default"), kinds: ["trades"], orders: true },
            ],
        };
        expect(withoutIds(decodeState(`#${encodeState(state)}`))).toEqual(withoutIds(state));
    });

    test("is short, and can be read", () => {
        const state = { ...defaultState, panels: [newPanel("USDM:BTCUSDT", 5)] };
        expect(encodeState(state)).toBe("panel=USDM:BTCUSDT,5,0,bt");
    });

    test("is the default when there is none", () => {
        expect(decodeState("")).toEqual(defaultState);
        expect(encodeState(defaultState)).toBe("");
    });

    test("does without what it does not understand", () => {
        const state = decodeState("#view=kitchen&theme=pink&selected=-1&depth=0&panel=nonsense&panel=A:B,x,0,b&panel=A:B,5,99999999,q&%%%&panel=%,1");
        expect(withoutIds(state)).toEqual(
            withoutIds({ ...defaultState, panels: [{ ...newPanel("A:B", 5), kinds: ["book"], intervalMs: 0 }] }),
        );
    });

    test("does not select a panel that is not there", () => {
        expect(decodeState("panel=A:B,5,0,b&selected=7").selected).toBe(0);
    });

    test("gives each panel a name of its own", () => {
        const [one, two] = decodeState("panel=A:B,5,0,b&panel=A:B,5,0,b").panels;
        expect(one!.id).not.toBe(two!.id);
    });
});
