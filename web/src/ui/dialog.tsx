import type { ComponentChildren } from "preact";
import { useEffect, useRef } from "preact/hooks";
import { CloseIcon } from "./icons.tsx";

interface DialogProps {
    title: string;
    open: boolean;
    onClose: () => void;
    children: ComponentChildren;
}

/** A modal dialog of the browser's own: it keeps the focus, closes with Escape, and gives the focus back. */
export function Dialog({ title, open, onClose, children }: DialogProps) {
    const dialog = useRef<HTMLDialogElement>(null);
    useEffect(() => {
        if (open && !dialog.current!.open) dialog.current!.showModal();
        if (!open && dialog.current!.open) dialog.current!.close();
    }, [open]);
    return (
        <dialog ref={dialog} aria-label={title} onClose={onClose}>
            {open && (
                <>
                    <header>
                        <h2>{title}</h2>
                        <button type="button" class="icon" aria-label="Close" onClick={onClose}>
                            <CloseIcon />
                        </button>
                    </header>
                    <div class="dialog-body">{children}</div>
                </>
            )}
        </dialog>
    );
}
