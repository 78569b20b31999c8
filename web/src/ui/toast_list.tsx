import { useStore } from "../state/store.ts";
import { CloseIcon } from "./icons.tsx";
import { useServices } from "./services.ts";

export function ToastList() {
    const { toasts } = useServices();
    const shown = useStore(toasts.store);
    return (
        <div class="toasts" role="log" aria-live="polite" aria-label="Messages">
            {shown.map((toast) => (
                <div key={toast.id} class="toast">
                    <p>
                        {toast.what}
                        {toast.count > 1 && <span class="count"> ×{toast.count}</span>}
                    </p>
                    <p class="where">{toast.where}</p>
                    <button type="button" class="icon" aria-label="Dismiss" onClick={() => toasts.dismiss(toast.id)}>
                        <CloseIcon />
                    </button>
                </div>
            ))}
        </div>
    );
}
