import { useStore } from "../state/store.ts";
import { type Palette, palettes, type Theme, themes, type View } from "../state/view_state.ts";
import { ConnectionBadge } from "./connection_badge.tsx";
import { helpOpen } from "./help.tsx";
import { ChartIcon, ListIcon } from "./icons.tsx";
import { useServices } from "./services.ts";

export function TopBar() {
    const services = useServices();
    const { view, theme, palette, list, chart } = useStore(services.view);
    const tab = (name: View, title: string) => (
        <a
            href={`#view=${name}`}
            aria-current={view === name ? "page" : undefined}
            onClick={(event) => {
                event.preventDefault();
                services.view.update({ view: name });
            }}
        >
            {title}
        </a>
    );
    return (
        <header class="top">
            <a class="skip" href="#main" onClick={skipToMain}>
                Skip to the prices
            </a>
            <button
                type="button"
                class="icon"
                aria-pressed={list}
                aria-label="List of instruments"
                title="List of instruments (l)"
                onClick={() => services.view.update({ list: !list, view: "ladders" })}
            >
                <ListIcon />
            </button>
            <nav aria-label="Views">
                {tab("ladders", "Ladders")}
                {tab("operations", "Operations")}
            </nav>
            <button
                type="button"
                class="icon"
                aria-pressed={chart}
                aria-label="Chart"
                title="Chart (c)"
                onClick={() => services.view.update({ chart: !chart, view: "ladders" })}
            >
                <ChartIcon />
            </button>
            <ConnectionBadge />
            <select
                aria-label="Colours"
                value={palette}
                onChange={({ currentTarget: { value } }) => services.view.update({ palette: value as Palette })}
            >
                {palettes.map((name) => (
                    <option key={name} value={name}>
                        {name.replace("-", " / ")}
                    </option>
                ))}
            </select>
            <select
                aria-label="Theme"
                value={theme}
                onChange={({ currentTarget: { value } }) => services.view.update({ theme: value as Theme })}
            >
                {themes.map((name) => (
                    <option key={name} value={name}>
                        {name}
                    </option>
                ))}
            </select>
            <button type="button" class="icon" aria-label="Keys" title="Keys (?)" onClick={() => helpOpen.set(true)}>
                ?
            </button>
        </header>
    );
}

/** By hand: the address is the page's state. */
function skipToMain(event: Event): void {
    event.preventDefault();
    const panel = document.querySelector<HTMLElement>(".panel.selected");
    (panel ?? document.getElementById("main"))?.focus();
}
