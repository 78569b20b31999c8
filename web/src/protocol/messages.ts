// What the gateway and this page say to each other; docs/protocol.md is the contract.
// Prices and quantities are decimal strings throughout, and never become numbers on their way to the eye.

export const subprotocol = "price-server.v1";

/** `[price, direct quantity, implied quantity, number of orders]` */
export type Level = [price: string, direct: string, implied: string, orders: number | null];

export type Kind = "book" | "trades" | "fields";
export type Depth = number | "default" | "max";
export type Component = "direct" | "implied" | "aggregated";

export interface Limits {
    message_bytes: number;
    subscriptions: number;
    requests_per_second: number;
    depth: number;
}

export interface Rights {
    markets: string[];
    operations: boolean;
}

export interface Hello {
    type: "hello";
    protocol: number;
    server: string;
    version: string;
    build: string;
    session: number;
    time_ns: string;
    authenticated: boolean;
    rights: Rights;
    limits: Limits;
}

export interface Format {
    denominator: number;
    fraction_digits: number;
    tick_size: number;
}

export interface Result {
    type: "result";
    request: string;
    code: number;
    name: string;
    meaning: string;
    instrument?: string;
    depth?: number;
    component?: Component;
    format?: Format;
}

export interface ProtocolError {
    type: "error";
    request: string | null;
    code: string;
    where: string | null;
    message: string;
}

interface BookMessage {
    instrument: string;
    depth: number;
    epoch: number;
    sequence: number;
    exchange_time_ns: string | null;
    receive_time_ns: string | null;
    bids: Level[];
    asks: Level[];
    missing?: Component[];
    stale?: Component[];
}

export interface Image extends BookMessage {
    type: "image";
}

export interface Update extends BookMessage {
    type: "update";
    previous: number;
}

export interface Trade {
    price: string;
    quantity: string;
    aggressor: "buyer" | "seller" | null;
    exchange_time_ns: string | null;
    receive_time_ns: string | null;
    id: string | null;
}

export interface Trades {
    type: "trades";
    instrument: string;
    trades: Trade[];
}

export interface Fields {
    type: "fields";
    instrument: string;
    prices: Record<string, number | string>;
    quantities: Record<string, number | string>;
    times: Record<string, number | string>;
}

export interface Renamed {
    type: "renamed";
    instrument: string;
    symbol: string;
    epoch: number;
}

export interface Conflated {
    type: "conflated";
    instrument: string;
    depth: number;
    count: number;
}

export interface Gap {
    type: "gap";
    instrument: string;
    kind: string;
    lost: number;
}

export interface Pong {
    type: "pong";
    request: string;
    time_ns: string;
}

export interface Authenticated {
    type: "authenticated";
    rights: Rights;
}

export type ServerMessage =
    | Hello
    | Authenticated
    | Result
    | ProtocolError
    | Image
    | Update
    | Trades
    | Fields
    | Renamed
    | Conflated
    | Gap
    | Pong;

export type ClientMessage =
    | { type: "authenticate"; token: string }
    | {
          type: "subscribe";
          request: string;
          instrument: string;
          depth: Depth;
          interval_ms: number;
          kinds: Kind[];
      }
    | {
          type: "change";
          request: string;
          subscription: string;
          depth?: Depth;
          interval_ms?: number;
          kinds?: Kind[];
          image?: true;
      }
    | { type: "unsubscribe"; request: string; subscription: string }
    | { type: "ping"; request: string };

export const resultCode = {
    success: 0,
    noSubscription: 13,
    directSubscriptionFailed: 17,
    unknownSubscriptionId: 24,
    accepted: 100,
} as const;
