import { useStore } from "../state/store.ts";
import { Chart } from "./chart.tsx";
import { Panel } from "./panel.tsx";
import { useServices } from "./services.ts";

export function Ladders() {
    const services = useServices();
    const { panels, selected, chart } = useStore(services.view);
    const welcome = useStore(services.welcome.state);
    const chosen = panels[selected];
    return (
        <div class="ladders">
            <h1 class="unseen">Ladders</h1>
            {panels.length === 0 && welcome === "awaited" && <div class="empty" />}
            {panels.length === 0 && welcome !== "awaited" && (
                <div class="empty">
                    <p>No instrument is shown.</p>
                    <p class="quiet">
                        Press <kbd>/</kbd>, type a part of a name, and take it with <kbd>Enter</kbd>.
                    </p>
                </div>
            )}
            {panels.length > 0 && (
                <div class="grid">
                    {panels.map((panel, index) => (
                        <Panel
                            key={panel.id}
                            panel={panel}
                            selected={index === selected}
                            onSelect={() => services.view.update({ selected: index })}
                        />
                    ))}
                    {welcome === "shown" && (
                        <p class="hint quiet">
                            Something to begin with. <kbd>/</kbd> adds others, <kbd>Delete</kbd> closes one, <kbd>?</kbd> shows all keys.
                        </p>
                    )}
                </div>
            )}
            {chart && chosen !== undefined && <Chart key={chosen.id} panel={chosen} />}
        </div>
    );
}
