import { useRef } from "preact/hooks";
import { useStore } from "../state/store.ts";
import { Dialog } from "./dialog.tsx";
import { useServices } from "./services.ts";

/** Opens by itself when the server demands a token. */
export function TokenPrompt() {
    const services = useServices();
    const { state, refused } = useStore(services.link);
    const input = useRef<HTMLInputElement>(null);
    const submit = (event: Event) => {
        // Nothing is ever sent as a form.
        event.preventDefault();
        const token = input.current!.value.trim();
        if (token !== "") services.useToken(token);
    };
    return (
        <Dialog title="Token" open={state === "token"} onClose={() => undefined}>
            <form onSubmit={submit} class="token">
                <label for="token">The server shows prices to those who have a token.</label>
                <input
                    id="token"
                    ref={input}
                    type="password"
                    autocomplete="off"
                    autofocus
                    aria-describedby="token-note"
                    aria-invalid={refused}
                />
                <button type="submit">Use it</button>
                <p id="token-note" class={refused ? "error" : "quiet"} role="status">
                    {refused ? "The server has refused that token." : "It is kept until this tab is closed."}
                </p>
            </form>
        </Dialog>
    );
}
