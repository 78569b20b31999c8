import { intervalText } from "./scope_controls.tsx";

/** Any value of JSON, as a list within a list. */
export function Tree({ value }: { value: unknown }) {
    if (typeof value !== "object" || value === null) return <span class="value">{plain(value)}</span>;
    const entries = Object.entries(value);
    if (entries.length === 0) return <span class="quiet">none</span>;
    return (
        <dl class="tree">
            {entries.map(([name, inner]) => (
                <div key={name}>
                    <dt>{Array.isArray(value) ? Number(name) + 1 : title(name)}</dt>
                    <dd>
                        <Tree value={inner} />
                    </dd>
                </div>
            ))}
        </dl>
    );
}

/** A value in one line, for a cell of a table. */
export function plain(value: unknown, name = ""): string {
    if (value === null || value === undefined || value === "") return "–";
    if (typeof value === "boolean") return value ? "yes" : "no";
    if (Array.isArray(value)) return value.map((inner) => plain(inner)).join("; ") || "–";
    if (typeof value === "object") return plainObject(value as Record<string, unknown>);
    if (name.endsWith("_ns") && /^\d{16,20}$/.test(String(value))) return timeOfNs(String(value));
    return String(value);
}

/** What the server's objects are about, where it can be said shorter than member by member. */
function plainObject(value: Record<string, unknown>): string {
    if ("interval_ms" in value && "depth" in value) return scopeText(value);
    if ("component" in value && "result" in value) {
        const result = value.result as { name?: string } | null;
        return `${plain(value.component)}: ${value.is_subscribed === true ? "subscribed" : plain(result?.name)}`;
    }
    if ("holder" in value && "scope" in value) return `${plain(value.holder)} (${plain(value.scope)})`;
    const parts = Object.entries(value).map(([name, inner]) => `${title(name)} ${plain(inner, name)}`);
    return parts.join(", ") || "–";
}

function scopeText(scope: Record<string, unknown>): string {
    const parts = [`depth ${plain(scope.depth)}`, intervalText(Number(scope.interval_ms))];
    for (const kind of ["trades", "fields"]) if (scope[kind] === true) parts.push(kind);
    return parts.join(", ");
}

function timeOfNs(ns: string): string {
    return `${new Date(Number(BigInt(ns) / 1_000_000n)).toISOString().slice(0, 19).replace("T", " ")}`;
}

export function title(name: string): string {
    return name.replace(/_ns$/, "").replaceAll("_", " ");
}

type Row = Record<string, unknown>;

interface TableProps {
    label: string;
    rows: readonly Row[];
    /** Columns that come first; others follow as they are met. */
    first: readonly string[];
}

export function ValueTable({ label, rows, first }: TableProps) {
    const met = [...new Set(rows.flatMap((row) => Object.keys(row)))];
    const columns = [...first.filter((name) => met.includes(name)), ...met.filter((name) => !first.includes(name))];
    if (rows.length === 0) return <p class="quiet">none</p>;
    return (
        <div class="table-frame" tabIndex={0} role="region" aria-label={`Table of ${label}`}>
            <table>
                <thead>
                    <tr>
                        {columns.map((name) => (
                            <th key={name} scope="col" class={isNumeric(rows, name) ? "number" : ""}>
                                {title(name)}
                            </th>
                        ))}
                    </tr>
                </thead>
                <tbody>
                    {rows.map((row, index) => (
                        <tr key={index}>
                            {columns.map((name) => (
                                <td key={name} class={isNumeric(rows, name) ? "number" : ""}>
                                    {plain(row[name], name)}
                                </td>
                            ))}
                        </tr>
                    ))}
                </tbody>
            </table>
        </div>
    );
}

function isNumeric(rows: readonly Row[], name: string): boolean {
    return rows.every((row) => row[name] === undefined || row[name] === null || typeof row[name] === "number");
}
