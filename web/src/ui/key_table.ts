/** What each key does; the help shows the same table. */
export const keyTable: readonly [keys: string, what: string][] = [
    ["/", "search instruments"],
    ["← → ↑ ↓", "go to another panel"],
    ["Alt ← →", "move the panel"],
    ["+ −", "more or fewer levels"],
    ["i", "next interval"],
    ["t", "trades on or off"],
    ["s", "say the panel's prices (screen reader)"],
    ["Delete", "close the panel"],
    ["c", "chart on or off"],
    ["l", "list of instruments on or off"],
    ["1 2", "ladders, operations"],
    ["?", "this help"],
];
