import type { ComponentChildren } from "preact";

function Icon({ children }: { children: ComponentChildren }) {
    return (
        <svg viewBox="0 0 12 12" width="12" height="12" aria-hidden="true" focusable="false">
            {children}
        </svg>
    );
}

export function CloseIcon() {
    return (
        <Icon>
            <path d="M3 3l6 6M9 3l-6 6" />
        </Icon>
    );
}

export function ScopeIcon() {
    return (
        <Icon>
            <path d="M1 3h10M1 9h10M4 1.5v3M8 7.5v3" />
        </Icon>
    );
}

export function ListIcon() {
    return (
        <Icon>
            <path d="M1 2.5h10M1 6h10M1 9.5h10" />
        </Icon>
    );
}

export function ChartIcon() {
    return (
        <Icon>
            <path d="M1 9l3-4 3 2 4-5M1 11h10" />
        </Icon>
    );
}
