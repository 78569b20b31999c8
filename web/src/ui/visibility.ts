type Callback = (visible: boolean) => void;

const callbacks = new Map<Element, Callback>();
const onScreen = new Map<Element, boolean>();

const observer = new IntersectionObserver(
    (entries) => {
        for (const entry of entries) {
            onScreen.set(entry.target, entry.isIntersecting);
            tell(entry.target);
        }
    },
    // A little ahead: a panel that is scrolled to has its prices when it comes.
    { rootMargin: "80px" },
);

document.addEventListener("visibilitychange", () => {
    for (const element of callbacks.keys()) tell(element);
});

function tell(element: Element): void {
    callbacks.get(element)?.(onScreen.get(element) === true && document.visibilityState === "visible");
}

/** Tells whether anybody could see the element: it is scrolled into view, and the tab is not hidden. */
export function observeVisibility(element: Element, callback: Callback): () => void {
    callbacks.set(element, callback);
    observer.observe(element);
    return () => {
        callbacks.delete(element);
        onScreen.delete(element);
        observer.unobserve(element);
    };
}
