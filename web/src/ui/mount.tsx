import { useLayoutEffect, useRef } from "preact/hooks";

interface MountProps {
    node: HTMLElement;
    class?: string;
    /** The name of what is shown, if it may be longer than its frame: a frame that scrolls is reached by keyboard. */
    scrolls?: string;
}

/** A place for an element that is painted by itself. */
export function Mount({ node, class: className = "mount", scrolls }: MountProps) {
    const place = useRef<HTMLDivElement>(null);
    useLayoutEffect(() => {
        place.current!.replaceChildren(node);
    }, [node]);
    return scrolls === undefined ? (
        <div class={className} ref={place} />
    ) : (
        <div class={className} ref={place} tabIndex={0} role="group" aria-label={`levels of ${scrolls}`} />
    );
}
