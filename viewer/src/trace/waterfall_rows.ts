/* Draws rows of the waterfall: what is called, how long it took, and when. */
import { duration, times } from '../ui/format';
import { BOLD, FONT, type Drawing, type Palette } from './canvas';
import { childrenOf, type Model } from './model';
import type { Row } from './rows';
import type { Zoom } from './scale';

/* Where things are, in pixels of the page. */
export interface Places {
	readonly width: number;
	/* Of the names and figures; the bars are to the right of them. */
	readonly names: number;
	/* On narrow pages bars are below the names. */
	readonly isStacked: boolean;
	readonly rowHeight: number;
	readonly indent: number;
}

export const HEAD_HEIGHT = 24;

const FIGURES_WIDTH = 62;
const WIDE_ROW = 22;
const STACKED_ROW = 38;
const BAR_HEIGHT = 10;
const MOST_INDENT = 13;
export const TWISTY_WIDTH = 14;

export function placesFor(width: number, deepest: number): Places {
	const isStacked = width < 560;
	const names = isStacked ? 0 : Math.round(Math.min(520, Math.max(230, width * 0.42)));
	const room = (isStacked ? width : names) * 0.4;
	const indent = Math.min(MOST_INDENT, room / Math.max(1, deepest));
	return { width, names, isStacked, rowHeight: isStacked ? STACKED_ROW : WIDE_ROW, indent };
}

export interface RowLook {
	readonly isOpen: boolean;
	readonly isChosen: boolean;
	readonly isHovered: boolean;
	readonly isFocused: boolean;
	/* A finding or a search means it, or something else. */
	readonly isMarked: boolean;
	readonly isDimmed: boolean;
	/* Steps of the critical path that this row stands for, as indexes. */
	readonly steps: readonly number[] | undefined;
}

/* Segments that come by their start; those that share pixels are drawn as one. */
class Segments {
	private from = 0;
	private to = -1;

	constructor(
		private readonly context: CanvasRenderingContext2D,
		private readonly least: number,
		private readonly most: number,
		private readonly y: number,
		private readonly height: number,
	) {}

	add(from: number, to: number): void {
		const begin = Math.max(this.least, from);
		const end = Math.min(this.most, Math.max(to, from + 1));
		if (end <= begin) {
			return;
		}
		if (begin > this.to + 0.4) {
			this.flush();
			this.from = begin;
			this.to = end;
		} else {
			this.to = Math.max(this.to, end);
		}
	}

	flush(): void {
		if (this.to > this.from) {
			this.context.fillRect(this.from, this.y, this.to - this.from, this.height);
		}
		this.to = -1;
	}
}

export class RowPainter {
	private readonly context: CanvasRenderingContext2D;
	private readonly palette: Palette;
	private readonly left: number;
	private readonly scale: number;

	constructor(
		private readonly drawing: Drawing,
		private readonly model: Model,
		private readonly places: Places,
		private readonly zoom: Zoom,
	) {
		this.context = drawing.context;
		this.palette = drawing.palette;
		this.left = places.names;
		this.scale = (places.width - this.left - 2) / (zoom.to - zoom.from);
	}

	x(ms: number): number {
		return this.left + (ms - this.zoom.from) * this.scale;
	}

	paint(row: Row, y: number, look: RowLook): void {
		const { context, palette, places } = this;
		if (look.isChosen || look.isHovered) {
			context.fillStyle = look.isChosen ? palette.chosen : palette.hover;
			context.fillRect(0, y, places.width, places.rowHeight);
		}
		if (look.isMarked) {
			context.fillStyle = palette.accent;
			context.fillRect(0, y, 3, places.rowHeight);
		}
		if (look.isChosen && look.isFocused) {
			context.strokeStyle = palette.accent;
			context.lineWidth = 1;
			context.strokeRect(0.5, y + 0.5, places.width - 1, places.rowHeight - 1);
		}
		context.globalAlpha = look.isDimmed ? 0.4 : 1;
		this.paintName(row, y, look);
		const barY = places.isStacked ? y + 23 : y + Math.round((WIDE_ROW - BAR_HEIGHT) / 2) - 1;
		if (row.kind !== 'each') {
			this.paintBars(row, barY, look);
		}
		context.globalAlpha = 1;
	}

	private paintName(row: Row, y: number, look: RowLook): void {
		const { context, palette, places, drawing } = this;
		const middle = y + WIDE_ROW / 2;
		const right = places.isStacked ? places.width : places.names;
		let x = 4 + row.depth * places.indent;
		if (row.mayOpen) {
			this.twisty(x + 5, middle, look.isOpen);
		}
		x += TWISTY_WIDTH;
		if (row.kind !== 'each') {
			context.fillStyle = palette.layers[this.model.layer[row.nodes[0] ?? 0] ?? 0] ?? palette.muted;
			context.fillRect(x, middle - 4, 8, 8);
			x += 13;
		}
		const end = right - FIGURES_WIDTH - 6;
		if (row.nodes.length > 1) {
			context.font = BOLD;
			context.fillStyle = palette.text;
			const text = times(row.nodes.length);
			context.fillText(text, x, middle);
			x += context.measureText(`${text} `).width + 2;
			context.font = FONT;
		}
		context.fillStyle = row.isFailed ? palette.bad : row.kind === 'each' || row.kind === 'silent' ? palette.muted : palette.text;
		if (row.hasFailed) {
			this.failureSign(x + 5, middle, row.isFailed);
			x += 15;
		}
		context.fillText(drawing.fit(row.label, end - x), x, middle);
		if (row.kind !== 'each') {
			context.fillStyle = palette.text;
			context.textAlign = 'right';
			context.fillText(duration(row.total), right - 8, middle);
			context.textAlign = 'left';
		}
	}

	private twisty(x: number, y: number, isOpen: boolean): void {
		const { context } = this;
		context.fillStyle = this.palette.muted;
		context.beginPath();
		if (isOpen) {
			context.moveTo(x - 4, y - 2);
			context.lineTo(x + 4, y - 2);
			context.lineTo(x, y + 3);
		} else {
			context.moveTo(x - 2, y - 4);
			context.lineTo(x + 3, y);
			context.lineTo(x - 2, y + 4);
		}
		context.fill();
	}

	/* A filled one failed itself, of an empty one something below it. */
	private failureSign(x: number, y: number, isFilled: boolean): void {
		const { context, palette } = this;
		context.beginPath();
		context.arc(x, y, 5, 0, Math.PI * 2);
		const before = context.fillStyle;
		if (isFilled) {
			context.fillStyle = palette.bad;
			context.fill();
			context.fillStyle = palette.back;
			context.fillRect(x - 1, y - 3, 2, 4);
			context.fillRect(x - 1, y + 2, 2, 1.5);
		} else {
			context.strokeStyle = palette.bad;
			context.lineWidth = 1.5;
			context.stroke();
		}
		context.fillStyle = before;
	}

	private paintBars(row: Row, y: number, look: RowLook): void {
		const { context, model, palette } = this;
		const colour = palette.layers[model.layer[row.nodes[0] ?? 0] ?? 0] ?? palette.muted;
		const alpha = context.globalAlpha;
		if (row.nodes.length === 1) {
			this.paintCall(row.nodes[0] ?? 0, y, look.isOpen, colour);
		} else {
			context.fillStyle = colour;
			const isWaiting = row.calls > 0;
			context.globalAlpha = alpha * (isWaiting ? 0.45 : 1);
			const segments = this.segments(y, BAR_HEIGHT);
			for (const node of row.nodes) {
				segments.add(this.x(model.start[node] ?? 0), this.x(model.end[node] ?? 0));
			}
			segments.flush();
			context.globalAlpha = alpha;
		}
		if (look.steps) {
			context.fillStyle = palette.path;
			const segments = this.segments(y + BAR_HEIGHT + 1, 3);
			for (const step of look.steps) {
				segments.add(this.x(model.stepFrom[step] ?? 0), this.x(model.stepTo[step] ?? 0));
			}
			segments.flush();
		}
	}

	private segments(y: number, height: number): Segments {
		return new Segments(this.context, this.left, this.places.width, y, height);
	}

	/* Solid while it worked itself; pale while what it called did, in that one's colour if it is closed. */
	private paintCall(node: number, y: number, isOpen: boolean, colour: string): void {
		const { context, model, palette } = this;
		const [start, end] = [model.start[node] ?? 0, model.end[node] ?? 0];
		const alpha = context.globalAlpha;
		const children = childrenOf(model, node);
		context.fillStyle = colour;
		if (children.length === 0) {
			const segments = this.segments(y, BAR_HEIGHT);
			segments.add(this.x(start), this.x(end));
			segments.flush();
			return;
		}
		context.globalAlpha = alpha * 0.3;
		const whole = this.segments(y, BAR_HEIGHT);
		whole.add(this.x(start), this.x(end));
		whole.flush();
		if (!isOpen) {
			this.paintChildren(children, y, alpha * 0.6);
		}
		context.globalAlpha = alpha;
		context.fillStyle = palette.layers[model.layer[node] ?? 0] ?? colour;
		const own = this.segments(y, BAR_HEIGHT);
		let at = start;
		for (const child of children) {
			const from = model.start[child] ?? 0;
			if (from > at) {
				own.add(this.x(at), this.x(from));
			}
			at = Math.max(at, model.end[child] ?? 0);
		}
		if (end > at) {
			own.add(this.x(at), this.x(end));
		}
		own.flush();
	}

	private paintChildren(children: Uint32Array, y: number, alpha: number): void {
		const { context, model, palette } = this;
		palette.layers.forEach((colour, layer) => {
			context.fillStyle = colour;
			context.globalAlpha = alpha;
			const segments = this.segments(y, BAR_HEIGHT);
			for (const child of children) {
				if (model.layer[child] === layer) {
					segments.add(this.x(model.start[child] ?? 0), this.x(model.end[child] ?? 0));
				}
			}
			segments.flush();
		});
	}
}
