import { createContext } from "preact";
import { useContext } from "preact/hooks";
import { forgetColours } from "../paint/colours.ts";
import { browserFrames, PaintScheduler } from "../paint/scheduler.ts";
import { browserClock } from "../protocol/clock.ts";
import { Connection, type ConnectionState, type Socket } from "../protocol/connection.ts";
import type { Hello } from "../protocol/messages.ts";
import { PriceClient } from "../protocol/price_client.ts";
import { keepState, loadState } from "../state/persistence.ts";
import { Store } from "../state/store.ts";
import { Toasts } from "../state/toasts.ts";
import { storedToken, storeToken } from "../state/token.ts";
import { newPanel, type PanelState, type ViewState } from "../state/view_state.ts";
import { Welcome } from "./first_visit.ts";
import type { PanelFeed } from "./panel_feed.ts";

export interface Link {
    state: ConnectionState;
    why: string;
    hello: Hello | null;
    /** The last token was wrong. */
    refused: boolean;
}

/** Everything that lives as long as the page, wired once. Components get at it by `useServices`. */
export class Services {
    readonly view = new Store<ViewState>(loadState());
    readonly link = new Store<Link>({ state: "connecting", why: "", hello: null, refused: false });
    readonly toasts = new Toasts();
    readonly scheduler = new PaintScheduler(browserFrames);
    readonly connection: Connection;
    readonly client: PriceClient;
    readonly welcome = new Welcome(this);
    /** The feeds of the panels on the page, by the panel's id. */
    readonly feeds = new Map<number, PanelFeed>();
    /** Said to screen readers, politely. */
    readonly announcement = new Store("");
    /** Grows when a token was accepted: what had failed for want of it may be asked for again. */
    readonly tokenVersion = new Store(0);

    constructor() {
        this.connection = new Connection(
            openSocket,
            {
                state: (state, why) => {
                    if (state !== "open" && this.link.value.state === "open") this.client.sessionEnded();
                    this.link.update({ state, why, hello: this.connection.hello });
                },
                open: (hello) => {
                    this.link.update({ hello, refused: false });
                    this.client.sessionBegan();
                    void this.welcome.begin();
                },
                message: (message, arrivedMs) => this.client.receive(message, arrivedMs),
                refused: () => {
                    storeToken(null);
                    this.link.update({ refused: true });
                },
                broken: (what) => this.toasts.show(what, "connection"),
            },
            browserClock,
            storedToken(),
        );
        this.client = new PriceClient(this.connection, ({ what, where }) => this.toasts.show(what, where), browserClock);
        keepState(this.view);
    }

    useToken(token: string): void {
        storeToken(token);
        this.link.update({ refused: false });
        this.connection.authenticate(token);
        this.tokenVersion.set(this.tokenVersion.value + 1);
    }

    /** Another theme: what is drawn rather than styled is drawn again. */
    recolour(): void {
        forgetColours();
        for (const feed of this.feeds.values()) feed.ladder.repaint();
    }

    addPanel(instrument: string): void {
        this.welcome.end();
        const { panels, depth } = this.view.value;
        this.view.update({ view: "ladders", panels: [...panels, newPanel(instrument, depth)], selected: panels.length });
        this.announcement.set(`${instrument} added`);
    }

    changePanel(id: number, change: Partial<PanelState>): void {
        const panels = this.view.value.panels.map((panel) => (panel.id === id ? { ...panel, ...change } : panel));
        this.view.update({ panels });
    }

    closePanel(id: number): void {
        this.welcome.end();
        const { panels, selected } = this.view.value;
        const index = panels.findIndex((panel) => panel.id === id);
        const rest = panels.filter((panel) => panel.id !== id);
        const next = selected > index || selected >= rest.length ? selected - 1 : selected;
        this.view.update({ panels: rest, selected: Math.max(0, next) });
        this.announcement.set(`${panels[index]?.instrument ?? "panel"} closed`);
    }

    movePanel(id: number, by: number): void {
        const panels = [...this.view.value.panels];
        const from = panels.findIndex((panel) => panel.id === id);
        const to = from + by;
        if (from < 0 || to < 0 || to >= panels.length) return;
        panels.splice(to, 0, ...panels.splice(from, 1));
        this.view.update({ panels, selected: to });
    }
}

function openSocket(protocol: string): Socket {
    const address = new URL("ws", location.href);
    address.protocol = location.protocol === "https:" ? "wss:" : "ws:";
    address.hash = address.search = "";
    return new WebSocket(address, protocol) as Socket;
}

export const ServicesContext = createContext<Services | null>(null);

export function useServices(): Services {
    const services = useContext(ServicesContext);
    if (services === null) throw new Error("there are no services above this component");
    return services;
}
