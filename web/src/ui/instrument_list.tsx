import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import type { Entry } from "../search/directory.ts";
import { visibleRows } from "../search/match.ts";
import { useStore } from "../state/store.ts";
import { useServices } from "./services.ts";
import { useDirectory } from "./use_directory.ts";

const rowHeight = 20;
/** Beside the other attributes, since their types know comboboxes only with a list of the browser's own. */
const comboboxRole: object = { role: "combobox" };

/** The search: a field, and all that matches below it. However many rows there are, only those in sight exist. */
export function InstrumentList() {
    const services = useServices();
    const { panels } = useStore(services.view);
    const [query, setQuery] = useState("");
    const [active, setActive] = useState(0);
    const [scrollTop, setScrollTop] = useState(0);
    const [height, setHeight] = useState(600);
    const list = useRef<HTMLDivElement>(null);
    const { found, count } = useDirectory(query);
    const shown = useMemo(() => new Set(panels.map((panel) => panel.instrument)), [panels]);

    useEffect(() => {
        const observer = new ResizeObserver(([entry]) => setHeight(entry!.contentRect.height));
        observer.observe(list.current!);
        return () => observer.disconnect();
    }, []);

    const goTo = (index: number) => {
        const next = Math.max(0, Math.min(index, found.length - 1));
        setActive(next);
        const element = list.current!;
        const top = next * rowHeight;
        if (top < element.scrollTop) element.scrollTop = top;
        else if (top + rowHeight > element.scrollTop + element.clientHeight) element.scrollTop = top + rowHeight - element.clientHeight;
    };
    const take = (entry: Entry | undefined) => entry !== undefined && services.addPanel(entry.instrument);
    const onKeyDown = (event: KeyboardEvent) => {
        const page = Math.floor(height / rowHeight) - 1;
        const steps: Record<string, number> = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page };
        const step = steps[event.key];
        if (step !== undefined) goTo(active + step);
        else if (event.key === "Enter") take(found[active]);
        else if (event.key === "Escape" && query !== "") setQuery("");
        else if (event.key === "Escape") (event.currentTarget as HTMLElement).blur();
        else return;
        event.preventDefault();
    };
    const rows = visibleRows(scrollTop, height, rowHeight, found.length);
    return (
        <aside class="instruments" aria-label="Instruments">
            <input
                id="search"
                type="search"
                {...comboboxRole}
                aria-label="Search instruments"
                aria-expanded="true"
                aria-controls="instrument-list"
                aria-autocomplete="list"
                aria-activedescendant={found.length > 0 ? `instrument-${active}` : undefined}
                placeholder="Search  /"
                autocomplete="off"
                spellcheck={false}
                value={query}
                onInput={(event) => {
                    setQuery(event.currentTarget.value);
                    setActive(0);
                    list.current!.scrollTop = 0;
                }}
                onKeyDown={onKeyDown}
            />
            <p class="quiet found" role="status">
                {count}
            </p>
            <div
                id="instrument-list"
                class="rows"
                role="listbox"
                aria-label="Instruments found"
                tabIndex={-1}
                ref={list}
                onScroll={(event) => setScrollTop(event.currentTarget.scrollTop)}
            >
                <div class="all" role="presentation" style={{ height: `${found.length * rowHeight}px` }}>
                    {found.slice(rows.first, rows.first + rows.count).map((entry, offset) => {
                        const index = rows.first + offset;
                        return (
                            <div
                                key={entry.instrument}
                                id={`instrument-${index}`}
                                class={`row${index === active ? " active" : ""}${shown.has(entry.instrument) ? " shown" : ""}`}
                                role="option"
                                aria-selected={index === active}
                                aria-setsize={found.length}
                                aria-posinset={index + 1}
                                style={{ transform: `translateY(${index * rowHeight}px)` }}
                                onClick={() => {
                                    setActive(index);
                                    take(entry);
                                }}
                            >
                                <span class="symbol">{entry.symbol}</span>
                                <span class="market">{entry.market}</span>
                            </div>
                        );
                    })}
                </div>
            </div>
        </aside>
    );
}
