import type { ComponentType } from "preact";
import { useEffect, useState } from "preact/hooks";

/** A part of the page that comes in a file of its own, when it is first wanted. */
export function late(load: () => Promise<ComponentType>): ComponentType {
    let loaded: ComponentType | null = null;
    return function Late() {
        const [, redraw] = useState(0);
        useEffect(() => {
            if (loaded !== null) return;
            void load().then((component) => {
                loaded = component;
                redraw(1);
            });
        }, []);
        const Loaded = loaded;
        return Loaded === null ? <p class="quiet">loading…</p> : <Loaded />;
    };
}
