import { Store, useStore } from "../state/store.ts";
import { Dialog } from "./dialog.tsx";
import { keyTable } from "./key_table.ts";

export const helpOpen = new Store(false);

export function HelpDialog() {
    const open = useStore(helpOpen);
    return (
        <Dialog title="Keys" open={open} onClose={() => helpOpen.set(false)}>
            <dl class="keys">
                {keyTable.map(([keys, what]) => (
                    <div key={keys}>
                        <dt>
                            {keys.split(" ").map((key) => (
                                <kbd key={key}>{key}</kbd>
                            ))}
                        </dt>
                        <dd>{what}</dd>
                    </div>
                ))}
            </dl>
        </Dialog>
    );
}
