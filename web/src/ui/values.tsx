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
export function plain(value: unknown): string {
    if (value === null || value === undefined) return "–";
    if (typeof value === "boolean") return value ? "yes" : "no";
    if (Array.isArray(value)) return value.map(plain).join("; ") || "–";
    if (typeof value === "object") {
        const parts = Object.entries(value).map(([name, inner]) => `${title(name)} ${plain(inner)}`);
        return parts.join(", ") || "–";
    }
    return String(value);
}

export function title(name: string): string {
    return name.replaceAll("_", " ");
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
        <div class="table-frame" tabIndex={0} role="region" aria-label={label}>
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
                                    {plain(row[name])}
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
