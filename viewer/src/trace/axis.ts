/* The axis of time above bars, its lines, and the moment under the pointer. */
import { duration } from '../ui/format';
import type { Drawing } from './canvas';
import { ticks, type Zoom } from './scale';

const TICK_PIXELS = 90;

/* Of moments that lie `step` apart: `1.25 s` where whole milliseconds would all be the same. */
export function momentText(ms: number, step: number): string {
	if (ms < 1000 || step >= 60000) {
		return ms < 1000 && step < 1 ? `${Number(ms.toFixed(2))} ms` : duration(ms);
	}
	const places = Math.max(0, Math.min(4, 3 - Math.floor(Math.log10(step) + 1e-9)));
	return `${(ms / 1000).toFixed(places)} s`;
}

export class AxisPainter {
	private readonly marks: readonly number[];
	private readonly step: number;

	constructor(
		private readonly drawing: Drawing,
		private readonly left: number,
		private readonly right: number,
		private readonly zoom: Zoom,
	) {
		const { step, at } = ticks(zoom.from, zoom.to, (right - left) / TICK_PIXELS);
		this.marks = at;
		this.step = step;
	}

	x(ms: number): number {
		return this.left + ((ms - this.zoom.from) / (this.zoom.to - this.zoom.from)) * (this.right - this.left - 2);
	}

	paintLines(top: number): void {
		const { context, palette, height } = this.drawing;
		context.fillStyle = palette.line;
		for (const at of this.marks) {
			context.fillRect(Math.round(this.x(at)), top, 1, height - top);
		}
	}

	paintHead(height: number, pointer: number): void {
		const { context, palette, width } = this.drawing;
		context.fillStyle = palette.surface;
		context.fillRect(0, 0, width, height);
		context.fillStyle = palette.line;
		context.fillRect(0, height - 1, width, 1);
		context.fillStyle = palette.muted;
		for (const at of this.marks) {
			this.text(momentText(at, this.step), this.x(at) + 4, height / 2);
		}
		if (pointer >= this.zoom.from) {
			const x = Math.round(this.x(pointer));
			context.fillStyle = palette.accent;
			context.fillRect(x, 0, 1, this.drawing.height);
			const text = momentText(pointer, this.step / 20);
			const size = context.measureText(text).width + 8;
			const at = Math.max(this.left, Math.min(this.right - size, x - size / 2));
			context.fillStyle = palette.chosen;
			context.fillRect(at, 2, size, height - 5);
			context.fillStyle = palette.text;
			context.fillText(text, at + 4, height / 2);
		}
	}

	/* What is being chosen with the pointer. */
	paintRange(from: number, to: number): void {
		const { context, palette, height } = this.drawing;
		context.globalAlpha = 0.25;
		context.fillStyle = palette.accent;
		context.fillRect(Math.max(this.left, Math.min(from, to)), 0, Math.abs(to - from), height);
		context.globalAlpha = 1;
	}

	private text(text: string, x: number, y: number): void {
		const { context } = this.drawing;
		if (x + context.measureText(text).width < this.right) {
			context.fillText(text, x, y);
		}
	}
}
