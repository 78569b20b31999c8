// Arithmetic on decimal strings, exact at any length. Nothing here goes through floating point.

const digitZero = 48;

/** Compares two decimals; `"1.50"` equals `"1.5"`. */
export function compareDecimals(a: string, b: string): number {
    if (a === b) return 0;
    const negativeA = a.charCodeAt(0) === 45;
    const negativeB = b.charCodeAt(0) === 45;
    if (negativeA !== negativeB) {
        if (isZero(a) && isZero(b)) return 0;
        return negativeA ? -1 : 1;
    }
    const result = compareMagnitudes(a, b, negativeA ? 1 : 0);
    return negativeA ? -result : result;
}

function compareMagnitudes(a: string, b: string, start: number): number {
    const beginA = skipZeros(a, start);
    const beginB = skipZeros(b, start);
    const pointA = pointOf(a);
    const pointB = pointOf(b);
    const length = pointA - beginA;
    if (length !== pointB - beginB) return length < pointB - beginB ? -1 : 1;
    for (let i = 0; i < length; i += 1) {
        const difference = a.charCodeAt(beginA + i) - b.charCodeAt(beginB + i);
        if (difference !== 0) return difference < 0 ? -1 : 1;
    }
    const fraction = Math.max(a.length - pointA, b.length - pointB);
    for (let i = 1; i < fraction; i += 1) {
        const difference = digitAt(a, pointA + i) - digitAt(b, pointB + i);
        if (difference !== 0) return difference < 0 ? -1 : 1;
    }
    return 0;
}

function digitAt(text: string, index: number): number {
    return index < text.length ? text.charCodeAt(index) : digitZero;
}

function skipZeros(text: string, start: number): number {
    let index = start;
    while (text.charCodeAt(index) === digitZero) index += 1;
    return index;
}

function pointOf(text: string): number {
    const point = text.indexOf(".");
    return point < 0 ? text.length : point;
}

export function isZero(text: string): boolean {
    for (let i = 0; i < text.length; i += 1) {
        const code = text.charCodeAt(i);
        if (code > digitZero && code <= 57) return false;
    }
    return true;
}

/** Characters before the point, with the sign. */
export function wholeDigits(text: string): number {
    return pointOf(text);
}

/** Digits behind the point. */
export function fractionDigits(text: string): number {
    const point = text.indexOf(".");
    return point < 0 ? 0 : text.length - point - 1;
}

/** Pads with spaces so that points stand below each other: for cells that are set from the right, in one width of digits. */
export function alignAtPoint(text: string, fraction: number): string {
    if (fraction === 0) return text;
    const own = fractionDigits(text);
    if (own === 0) return text + " ".repeat(fraction + 1);
    return own < fraction ? text + " ".repeat(fraction - own) : text;
}

/** Writes out the zeros that a decimal leaves away: `"9811.3"` becomes `"9811.30"`. Never cuts. */
export function padZeros(text: string, fraction: number): string {
    if (fraction === 0) return text;
    const own = fractionDigits(text);
    if (own === 0) return `${text}.${"0".repeat(fraction)}`;
    return own < fraction ? text + "0".repeat(fraction - own) : text;
}

interface Scaled {
    units: bigint;
    fraction: number;
}

function scale(text: string, fraction: number): bigint {
    return BigInt(padZeros(text, fraction).replace(".", ""));
}

function common(a: string, b: string): [bigint, bigint, number] {
    const fraction = Math.max(fractionDigits(a), fractionDigits(b));
    return [scale(a, fraction), scale(b, fraction), fraction];
}

function write({ units, fraction }: Scaled): string {
    const sign = units < 0n ? "-" : "";
    const digits = (units < 0n ? -units : units).toString().padStart(fraction + 1, "0");
    if (fraction === 0) return sign + digits;
    return `${sign}${digits.slice(0, -fraction)}.${digits.slice(-fraction)}`;
}

export function subtract(a: string, b: string): string {
    const [x, y, fraction] = common(a, b);
    return write({ units: x - y, fraction });
}

/** The middle of two decimals, with one digit more where it needs it. */
export function middle(a: string, b: string): string {
    const [x, y, fraction] = common(a, b);
    const sum = x + y;
    if (sum % 2n === 0n) return write({ units: sum / 2n, fraction });
    return write({ units: sum * 5n, fraction: fraction + 1 });
}
