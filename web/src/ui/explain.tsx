import { ApiError, getJson } from "../api/http.ts";
import { Store, useStore } from "../state/store.ts";
import { Dialog } from "./dialog.tsx";
import type { Services } from "./services.ts";
import { Tree } from "./values.tsx";

interface Explained {
    instrument: string;
    answer: unknown;
}

const explained = new Store<Explained | null>(null);

/** Asks the server why an instrument shows what it shows. */
export function openExplain(services: Services, instrument: string): void {
    getJson(`/api/v1/explain?instrument=${encodeURIComponent(instrument)}`).then(
        (answer) => explained.set({ instrument, answer }),
        (error: unknown) => {
            const where = error instanceof ApiError ? error.where : "explain";
            services.toasts.show(error instanceof Error ? error.message : String(error), where);
        },
    );
}

export function ExplainDialog() {
    const value = useStore(explained);
    return (
        <Dialog title={value === null ? "Explanation" : `Why ${value.instrument}`} open={value !== null} onClose={() => explained.set(null)}>
            <Tree value={value?.answer} />
        </Dialog>
    );
}
