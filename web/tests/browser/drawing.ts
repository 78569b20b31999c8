interface Drawn {
    text: string;
    x: number;
    y: number;
}

declare global {
    /** What stands on a canvas, in pixels of the page. */
    var drawnTexts: (canvas: Element) => Drawn[];
}

/** In the page: keeps account of the texts on each canvas, until they are painted over. */
export function watchDrawing(): void {
    const texts = new WeakMap<Element, Drawn[]>();
    const { fillText, fillRect } = CanvasRenderingContext2D.prototype;
    globalThis.drawnTexts = (canvas) => texts.get(canvas) ?? [];
    CanvasRenderingContext2D.prototype.fillText = function (text, x, y, ...more) {
        const left = this.textAlign === "right" ? x - this.measureText(text).width : x;
        texts.set(this.canvas, [...(texts.get(this.canvas) ?? []), { text, x: left, y }]);
        fillText.call(this, text, x, y, ...more);
    };
    CanvasRenderingContext2D.prototype.fillRect = function (x, y, width, height) {
        // What begins beyond the edge is cut off there, and wiped with it.
        const left = x === 0 ? -Infinity : x - 1;
        const isOutside = (one: Drawn) => one.x < left || one.x >= x + width || one.y < y || one.y >= y + height;
        texts.set(this.canvas, (texts.get(this.canvas) ?? []).filter(isOutside));
        fillRect.call(this, x, y, width, height);
    };
}
