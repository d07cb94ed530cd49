/* The whole time in little, with the part that is shown; it is chosen by dragging. */
import { el } from '../ui/dom';
import { Drawing } from './canvas';
import { LAYERS } from './model';
import type { ViewState } from './state';

const MOST_LEVELS = 18;
const EDGE_PIXELS = 6;
const EDGE_PIXELS_OF_FINGERS = 20;

type Hold = 'from' | 'to' | 'both' | 'new';

export class Minimap {
	readonly element: HTMLElement;
	private readonly drawing: Drawing;
	private picture: HTMLCanvasElement | undefined;
	private pictureOf = '';
	private drag: { readonly hold: Hold; readonly time: number; readonly from: number; readonly to: number } | undefined;

	constructor(private readonly state: ViewState) {
		this.drawing = new Drawing('minimap-canvas', () => this.draw());
		this.element = el('div', { class: 'minimap', title: 'The whole time: drag to choose a part of it, double click for all' }, this.drawing.element);
		const { element } = this;
		element.addEventListener('pointerdown', (event) => this.press(event));
		element.addEventListener('pointermove', (event) => this.move(event));
		element.addEventListener('pointerup', () => (this.drag = undefined));
		element.addEventListener('pointercancel', () => (this.drag = undefined));
		element.addEventListener('dblclick', () => state.zoomTo((zoom) => zoom.set(0, zoom.whole)));
		state.on((change) => {
			if (change === 'zoom' || change === 'marks') {
				this.drawing.redraw();
			}
		});
	}

	end(): void {
		this.drawing.end();
	}

	private x(ms: number): number {
		return (ms / this.state.zoom.whole) * this.drawing.width;
	}

	private timeAt(event: PointerEvent): number {
		const box = this.element.getBoundingClientRect();
		return ((event.clientX - box.left) / Math.max(1, box.width)) * this.state.zoom.whole;
	}

	private holdAt(event: PointerEvent): Hold {
		const { zoom } = this.state;
		const x = event.clientX - this.element.getBoundingClientRect().left;
		if (zoom.isWhole) {
			return 'new';
		}
		const near = event.pointerType === 'mouse' ? EDGE_PIXELS : EDGE_PIXELS_OF_FINGERS;
		const [toFrom, toTo] = [Math.abs(x - this.x(zoom.from)), Math.abs(x - this.x(zoom.to))];
		if (Math.min(toFrom, toTo) < near) {
			return toFrom < toTo ? 'from' : 'to';
		}
		return x > this.x(zoom.from) && x < this.x(zoom.to) ? 'both' : 'new';
	}

	private press(event: PointerEvent): void {
		if (event.button === 0) {
			const { from, to } = this.state.zoom;
			this.drag = { hold: this.holdAt(event), time: this.timeAt(event), from, to };
			this.element.setPointerCapture(event.pointerId);
			event.preventDefault();
		}
	}

	private move(event: PointerEvent): void {
		const { drag, state } = this;
		const hold = drag?.hold ?? this.holdAt(event);
		this.element.style.setProperty('cursor', { from: 'ew-resize', to: 'ew-resize', both: 'grab', new: 'crosshair' }[hold]);
		if (!drag) {
			return;
		}
		const time = this.timeAt(event);
		const moved = time - drag.time;
		state.zoomTo((zoom) => {
			if (hold === 'both') {
				zoom.set(drag.from + moved, drag.to + moved);
			} else if (hold === 'from') {
				zoom.set(Math.min(time, drag.to), drag.to);
			} else if (hold === 'to') {
				zoom.set(drag.from, Math.max(time, drag.from));
			} else if (Math.abs(this.x(moved)) > 3) {
				zoom.set(Math.min(time, drag.time), Math.max(time, drag.time));
			}
		});
	}

	private draw(): void {
		const { drawing, state } = this;
		const { context, palette, width, height } = drawing;
		drawing.clear(palette.surface);
		const of = `${width} ${height} ${devicePixelRatio} ${palette.back}`;
		if (!this.picture || this.pictureOf !== of) {
			this.pictureOf = of;
			this.picture = this.paint(palette.layers);
		}
		context.drawImage(this.picture, 0, 0, width, height);
		this.paintMarks();
		if (!state.zoom.isWhole) {
			const [from, to] = [this.x(state.zoom.from), this.x(state.zoom.to)];
			context.fillStyle = palette.surface;
			context.globalAlpha = 0.72;
			context.fillRect(0, 0, from, height);
			context.fillRect(to, 0, width - to, height);
			context.globalAlpha = 1;
			context.fillStyle = palette.accent;
			context.fillRect(from - 1, 0, 2, height);
			context.fillRect(to - 1, 0, 2, height);
			context.fillRect(from - 3, height / 2 - 7, 6, 14);
			context.fillRect(to - 3, height / 2 - 7, 6, 14);
		}
	}

	/* Where the marked spans are, along the bottom. */
	private paintMarks(): void {
		const { marks, model } = this.state;
		const { context, palette, width, height } = this.drawing;
		// At each pixel how many begin there less how many ended there.
		const steps = new Int32Array(Math.ceil(width) + 2);
		marks?.forEach((is, node) => {
			if (is) {
				const from = Math.max(0, Math.min(Math.ceil(width) - 1, Math.floor(this.x(model.start[node] ?? 0))));
				const to = Math.min(Math.ceil(width), Math.max(from + 1, Math.floor(this.x(model.end[node] ?? 0))));
				steps[from] = (steps[from] ?? 0) + 1;
				steps[to] = (steps[to] ?? 0) - 1;
			}
		});
		context.fillStyle = palette.accent;
		let from = 0;
		let open = 0;
		steps.forEach((step, x) => {
			if (open === 0 && step > 0) {
				from = x;
			} else if (open > 0 && open + step === 0) {
				context.fillRect(from, height - 4, x - from, 4);
			}
			open += step;
		});
	}

	/* What each level did at each pixel; drawn once. */
	private paint(colours: readonly string[]): HTMLCanvasElement {
		const { model } = this.state;
		const width = Math.max(1, Math.round(this.drawing.width));
		const deepest = model.depth.reduce((most, depth) => Math.max(most, depth), 0);
		const levels = Math.min(MOST_LEVELS, deepest + 1);
		const cells = new Uint8Array(width * levels);
		for (let i = 0; i < model.size; i++) {
			if (model.isRepeated[i]) {
				continue;
			}
			const level = deepest < levels ? (model.depth[i] ?? 0) : Math.floor(((model.depth[i] ?? 0) * (levels - 1)) / deepest);
			const from = Math.min(width - 1, Math.floor(((model.start[i] ?? 0) / this.state.zoom.whole) * width));
			const to = Math.min(width, Math.max(from + 1, Math.ceil(((model.end[i] ?? 0) / this.state.zoom.whole) * width)));
			cells.fill((model.layer[i] ?? 0) + 1, level * width + from, level * width + to);
		}
		return paintCells(cells, width, levels, Math.max(1, Math.round(this.drawing.height)), colours);
	}
}

function paintCells(cells: Uint8Array, width: number, levels: number, height: number, colours: readonly string[]): HTMLCanvasElement {
	const picture = el('canvas', { width, height });
	const context = picture.getContext('2d');
	const levelHeight = Math.max(1, Math.min(8, (height - 6) / levels));
	for (let level = 0; context && level < levels; level++) {
		let from = 0;
		for (let x = 1; x <= width; x++) {
			const layer = cells[level * width + from] ?? 0;
			if (x === width || cells[level * width + x] !== layer) {
				if (layer > 0 && layer <= LAYERS.length) {
					context.fillStyle = colours[layer - 1] ?? 'gray';
					context.fillRect(from, 2 + level * levelHeight, x - from, Math.max(1, levelHeight - (levelHeight > 2 ? 1 : 0)));
				}
				from = x;
			}
		}
	}
	return picture;
}
