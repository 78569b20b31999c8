import { useEffect, useLayoutEffect } from "preact/hooks";
import { useStore } from "../state/store.ts";
import { ExplainDialog } from "./explain.tsx";
import { HelpDialog } from "./help.tsx";
import { InstrumentList } from "./instrument_list.tsx";
import { listenToKeys } from "./keys.ts";
import { late } from "./late.tsx";
import { Ladders } from "./ladders.tsx";
import { useServices } from "./services.ts";
import { ToastList } from "./toast_list.tsx";
import { TokenPrompt } from "./token_prompt.tsx";
import { TopBar } from "./top_bar.tsx";

const Operations = late(() => import("./operations.tsx").then((module) => module.Operations));

export function App() {
    const services = useServices();
    const { view, theme, palette, list } = useStore(services.view);
    useEffect(() => listenToKeys(services), []);
    useLayoutEffect(() => {
        const root = document.documentElement;
        const system = matchMedia("(prefers-color-scheme: dark)");
        const apply = () => {
            root.dataset.theme = theme === "auto" ? (system.matches ? "dark" : "light") : theme;
            root.dataset.palette = palette;
            services.recolour();
        };
        apply();
        system.addEventListener("change", apply);
        return () => system.removeEventListener("change", apply);
    }, [theme, palette]);
    return (
        <div class="page">
            <TopBar />
            <div class="middle">
                {view === "ladders" && list && <InstrumentList />}
                <main id="main" tabIndex={-1}>
                    {view === "ladders" ? <Ladders /> : <Operations />}
                </main>
            </div>
            <ToastList />
            <Announcer />
            <TokenPrompt />
            <HelpDialog />
            <ExplainDialog />
        </div>
    );
}

function Announcer() {
    const text = useStore(useServices().announcement);
    return (
        <div class="unseen" role="status" aria-live="polite">
            {text}
        </div>
    );
}
