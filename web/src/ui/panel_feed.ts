import { History } from "../book/history.ts";
import { Ladder } from "../paint/ladder.ts";
import type { PaintScheduler, Paintable } from "../paint/scheduler.ts";
import { SlowQueue } from "../paint/slow_queue.ts";
import { TradeStrip, writeLast } from "../paint/trade_strip.ts";
import { browserClock } from "../protocol/clock.ts";
import type { PriceClient } from "../protocol/price_client.ts";
import type { Holder, Scope, Subscription } from "../protocol/subscription.ts";
import type { PanelState } from "../state/view_state.ts";

/** A panel that is scrolled away keeps its subscription this long: scrolling past costs nothing. */
const graceMs = 400;
const mostRows = 200;
const rowsBeforeImage = 20;
/** Screen readers follow more slowly than eyes: one table at a time. */
const descriptions = new SlowQueue<PanelFeed>(browserClock, (feed) => feed.describe());

/**
 * What stands between a panel and its prices. It holds the panel's scope while the panel can be seen, takes notes of
 * what changes, and paints when the scheduler says so. No framework is involved in that.
 */
export class PanelFeed implements Paintable {
    readonly ladder: Ladder;
    readonly strip = new TradeStrip();
    readonly last = document.createElement("span");
    readonly fields = document.createElement("div");
    history = new History();
    isWide = false;
    #holder: Holder | null = null;
    #subscription: Subscription | null = null;
    #visible = false;
    #graceTimer: ReturnType<typeof setTimeout> | undefined;
    #painted = { tape: -1, fields: -1 };

    constructor(
        private readonly client: PriceClient,
        private readonly scheduler: PaintScheduler,
        private panel: PanelState,
        private readonly onState: () => void,
    ) {
        this.ladder = new Ladder(panel.instrument, rowsOf(panel, null));
        this.ladder.showOrders(panel.orders);
        this.ladder.onLost = () => scheduler.mark(this, performance.now());
        this.last.className = "last";
        this.fields.className = "fields";
        this.strip.root.setAttribute("aria-label", `last trades of ${panel.instrument}`);
    }

    /** Null while nothing is held; what was seen last stays on the screen. */
    get subscription(): Subscription | null {
        return this.#holder?.subscription ?? this.#subscription;
    }

    get isHeld(): boolean {
        return this.#holder !== null;
    }

    setVisible(visible: boolean): void {
        clearTimeout(this.#graceTimer);
        this.#visible = visible;
        if (visible) this.#hold();
        else this.#graceTimer = setTimeout(() => this.#release(), graceMs);
    }

    setPanel(panel: PanelState): void {
        const old = this.panel;
        this.panel = panel;
        if (old.instrument !== panel.instrument) {
            this.history = new History();
            this.#painted.tape = this.#painted.fields = -1;
        }
        this.ladder.setRows(rowsOf(panel, this.subscription?.effectiveDepth ?? null));
        this.ladder.showOrders(panel.orders);
        if (this.#holder !== null && scopeText(old) !== scopeText(panel)) this.client.rescope(this.#holder, scopeOf(panel));
        this.scheduler.mark(this, performance.now());
    }

    close(): void {
        clearTimeout(this.#graceTimer);
        this.#visible = false;
        this.#release();
        this.scheduler.forget(this);
        descriptions.forget(this);
        this.ladder.close();
    }

    /** Brings what is read out up to date with what is seen. */
    describe(): void {
        const book = this.subscription?.book;
        if (book?.hasImage) this.ladder.describe(book);
    }

    paint(): void {
        const subscription = this.subscription;
        if (subscription === null) return;
        const { book, data } = subscription;
        if (book.hasImage) {
            if (typeof this.panel.depth !== "number") this.ladder.setRows(rowsOf(this.panel, subscription.effectiveDepth));
            this.ladder.paint(book);
            descriptions.add(this);
            this.#widen();
        }
        if (data.tape.version !== this.#painted.tape) {
            this.#painted.tape = data.tape.version;
            writeLast(this.last, data.tape.last, this.ladder.priceFraction);
            if (this.panel.kinds.includes("trades")) this.strip.paint(data.tape, this.ladder.priceFraction);
        }
        if (this.panel.kinds.includes("fields") && data.fieldsVersion !== this.#painted.fields) {
            this.#painted.fields = data.fieldsVersion;
            this.fields.textContent = [...data.fields].map(([name, value]) => `${name}: ${value}`).join("  ");
        }
    }

    #hold(): void {
        if (this.#holder !== null) return;
        this.#holder = this.client.hold(scopeOf(this.panel), this.#onData, () => {
            this.scheduler.mark(this, performance.now());
            this.onState();
        });
        this.#painted.tape = this.#painted.fields = -1;
        this.onState();
    }

    #release(): void {
        if (this.#holder === null || this.#visible) return;
        this.#subscription = this.#holder.subscription;
        this.client.release(this.#holder);
        this.#holder = null;
        this.scheduler.forget(this);
        this.onState();
    }

    #onData = (arrivedMs: number): void => {
        const subscription = this.#holder?.subscription;
        if (subscription?.book.hasImage) this.history.sample(subscription.book, Date.now());
        this.scheduler.mark(this, arrivedMs);
    };

    /** Numbers that need more room get it, once: a panel does not become narrow again while others look at it. */
    #widen(): void {
        if (this.isWide || !this.ladder.isCrowded) return;
        this.isWide = true;
        this.onState();
    }
}

function scopeOf(panel: PanelState): Scope {
    return { instrument: panel.instrument, depth: panel.depth, intervalMs: panel.intervalMs, kinds: panel.kinds };
}

function scopeText(panel: PanelState): string {
    return [panel.instrument, panel.depth, panel.intervalMs, ...panel.kinds].join();
}

function rowsOf(panel: PanelState, effectiveDepth: number | null): number {
    const depth = typeof panel.depth === "number" ? panel.depth : (effectiveDepth ?? rowsBeforeImage);
    return Math.min(depth, mostRows);
}
