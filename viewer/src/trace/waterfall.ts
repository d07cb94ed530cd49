/*
 * Calls below each other on an axis of time. Only the rows that are seen are drawn, on a canvas; for
 * those who do not see it, the same rows are a tree of elements around the row that is chosen.
 */
import { el } from '../ui/dom';
import { AxisPainter } from './axis';
import { Drawing } from './canvas';
import { followGestures, type Ranged } from './gestures';
import { RowMirror } from './mirror';
import type { Row } from './rows';
import type { ViewState } from './state';
import { hideTip, rowTip, showTip } from './tip';
import { HEAD_HEIGHT, placesFor, RowPainter, TWISTY_WIDTH, type Places } from './waterfall_rows';

const CLICK_PIXELS = 4;
const NARROW_DEPTH = 60;

type Zone = 'head' | 'twisty' | 'name' | 'bars';

interface Place {
	readonly row: Row | undefined;
	readonly index: number;
	readonly zone: Zone;
	readonly time: number;
}

export class Waterfall {
	readonly element: HTMLElement;
	readonly drawing: Drawing;
	private readonly scroller: HTMLElement;
	private readonly spacer = el('div', { class: 'waterfall-space' });
	private readonly mirror: RowMirror;
	private places: Places = placesFor(800, 1);
	/* As the scroller has it: to ask for it would have the page laid out in the middle of a drawing. */
	private scrolled = 0;
	private hovered = -1;
	/* Worked out when it is asked for. */
	private chosenRow: number | undefined;
	private pointerTime = -1;
	private steps: (number[] | undefined)[] = [];
	private isMarked: Uint8Array | undefined;
	private drag: { readonly x: number; readonly from: number; readonly to: number; readonly zone: Zone; isDragged: boolean; at: number } | undefined;

	constructor(private readonly state: ViewState) {
		this.mirror = new RowMirror(state);
		this.scroller = el('div', {
			class: 'waterfall-scroll',
			role: 'tree',
			tabindex: 0,
			'aria-label': 'Calls, as a waterfall',
		});
		this.drawing = new Drawing('waterfall-canvas', () => this.draw(), this.scroller);
		this.scroller.append(this.drawing.element, this.spacer, this.mirror.element);
		this.element = el('div', { class: 'waterfall' }, this.scroller);
		new ResizeObserver(() => this.resize()).observe(this.scroller);
		this.listen();
		state.on((change) => {
			if (change === 'choice' || change === 'rows') {
				this.chosenRow = undefined;
			}
			if (change === 'rows') {
				this.layRows();
			}
			if (change === 'marks' || change === 'rows') {
				this.layMarks();
			}
			if (change === 'choice' || change === 'rows') {
				this.follow();
			}
			this.drawing.redraw();
		});
		this.layRows();
		this.layMarks();
	}

	get rows(): readonly Row[] {
		return this.state.tree.visible;
	}

	/* Of the chosen row among those that are visible; -1 if there is none. */
	get chosen(): number {
		this.chosenRow ??= this.findChosen();
		return this.chosenRow;
	}

	private findChosen(): number {
		const { choice } = this.state;
		if (!choice) {
			return -1;
		}
		const likely = this.state.tree.rowOf[choice.nodes[0] ?? 0] ?? -1;
		if (!choice.key || this.rows[likely]?.key === choice.key) {
			return likely;
		}
		const known = this.rows.findIndex((row) => row.key === choice.key);
		return known >= 0 ? known : likely;
	}

	get top(): number {
		return Math.round(this.scrolled / this.places.rowHeight);
	}

	set top(row: number) {
		this.scrollToPixel(row * this.places.rowHeight);
	}

	focus(): void {
		this.scroller.focus({ preventScroll: true });
	}

	/* How many rows fit. */
	get page(): number {
		return Math.max(1, Math.floor((this.drawing.height - HEAD_HEIGHT) / this.places.rowHeight) - 1);
	}

	onScroll(listener: () => void): void {
		this.scroller.addEventListener('scroll', listener);
	}

	scrollTo(index: number): void {
		const { rowHeight } = this.places;
		const room = this.drawing.height - HEAD_HEIGHT;
		if (index * rowHeight < this.scrolled) {
			this.scrollToPixel((index - 2) * rowHeight);
		} else if ((index + 1) * rowHeight > this.scrolled + room) {
			this.scrollToPixel((index + 3) * rowHeight - room);
		}
	}

	end(): void {
		hideTip();
		this.drawing.end();
	}

	private scrollToPixel(pixels: number): void {
		this.scroller.scrollTop = Math.max(0, pixels);
		this.scrolled = this.scroller.scrollTop;
	}

	private layRows(): void {
		const { tree, model } = this.state;
		this.steps = new Array<number[] | undefined>(tree.visible.length);
		for (let i = 0; i < model.stepNode.length; i++) {
			const row = tree.rowOf[model.stepNode[i] ?? 0] ?? -1;
			if (row >= 0) {
				(this.steps[row] ??= []).push(i);
			}
		}
		this.resize();
	}

	private layMarks(): void {
		const { marks, tree } = this.state;
		this.isMarked = marks && new Uint8Array(tree.visible.length);
		for (let node = 0; marks && this.isMarked && node < marks.length; node++) {
			const row = tree.rowOf[node] ?? -1;
			if (marks[node] && row >= 0) {
				this.isMarked[row] = 1;
			}
		}
	}

	private resize(): void {
		const { scroller } = this;
		const deepest = this.rows.reduce((most, row) => Math.max(most, row.depth), 0);
		const width = scroller.clientWidth;
		this.places = placesFor(width, Math.min(NARROW_DEPTH, deepest));
		this.spacer.style.setProperty('height', `${HEAD_HEIGHT + this.rows.length * this.places.rowHeight}px`);
		this.drawing.element.style.setProperty('height', `${scroller.clientHeight}px`);
		this.drawing.resize();
	}

	private follow(): void {
		const { chosen } = this;
		if (chosen >= 0) {
			this.scrollTo(chosen);
		}
		this.mirror.show(chosen, this.scroller);
	}

	private draw(): void {
		const { drawing, places, state, rows } = this;
		const { context, palette } = drawing;
		drawing.clear(palette.back);
		const { scrolled } = this;
		const first = Math.max(0, Math.floor(scrolled / places.rowHeight));
		const last = Math.min(rows.length, Math.ceil((scrolled + drawing.height - HEAD_HEIGHT) / places.rowHeight));
		const axis = new AxisPainter(drawing, places.names, places.width, state.zoom);
		axis.paintLines(HEAD_HEIGHT);
		const painter = new RowPainter(drawing, state.model, places, state.zoom);
		const { chosen } = this;
		const isFocused = document.activeElement === this.scroller;
		for (let i = first; i < last; i++) {
			const row = rows[i];
			const isMarked = this.isMarked?.[i] === 1;
			if (row) {
				painter.paint(row, HEAD_HEIGHT + i * places.rowHeight - scrolled, {
					isOpen: state.tree.isOpen(row),
					isChosen: i === chosen,
					isHovered: i === this.hovered,
					isFocused,
					isMarked,
					isDimmed: this.isMarked !== undefined && !isMarked,
					steps: this.steps[i],
				});
			}
		}
		axis.paintHead(HEAD_HEIGHT, this.pointerTime);
		if (!places.isStacked) {
			context.fillStyle = palette.line;
			context.fillRect(places.names - 1, 0, 1, drawing.height);
		}
		if (this.drag?.isDragged && this.drag.zone === 'head') {
			axis.paintRange(this.drag.x, this.drag.at);
		}
		this.mirror.showAround(first, last);
	}

	private placeAt(event: MouseEvent): Place {
		const box = this.scroller.getBoundingClientRect();
		const [x, y] = [event.clientX - box.left, event.clientY - box.top];
		const { places, state } = this;
		const time = state.zoom.from + ((x - places.names) / (places.width - places.names)) * (state.zoom.to - state.zoom.from);
		if (y < HEAD_HEIGHT) {
			return { row: undefined, index: -1, zone: x < places.names ? 'name' : 'head', time };
		}
		const within = y - HEAD_HEIGHT + this.scrolled;
		const index = Math.floor(within / places.rowHeight);
		const row = this.rows[index];
		const isBar = places.isStacked ? within - index * places.rowHeight > 20 : x >= places.names;
		const twisty = 4 + (row?.depth ?? 0) * places.indent;
		const isTwisty = row?.mayOpen && x >= twisty - 4 && x < twisty + TWISTY_WIDTH + 2;
		return { row, index: row ? index : -1, zone: isBar ? 'bars' : isTwisty ? 'twisty' : 'name', time };
	}

	private listen(): void {
		const { scroller } = this;
		scroller.addEventListener('scroll', () => {
			this.scrolled = scroller.scrollTop;
			this.drawing.redraw();
		});
		scroller.addEventListener('focus', () => this.drawing.redraw());
		scroller.addEventListener('blur', () => this.drawing.redraw());
		followGestures(scroller, this.ranged());
		scroller.addEventListener('pointerdown', (event) => this.press(event));
		scroller.addEventListener('pointermove', (event) => this.move(event));
		scroller.addEventListener('pointerup', (event) => this.release(event));
		scroller.addEventListener('pointercancel', () => (this.drag = undefined));
		scroller.addEventListener('pointerleave', () => this.hover(-1, -1));
		scroller.addEventListener('dblclick', (event) => {
			const { row, zone } = this.placeAt(event);
			if (row && zone === 'bars') {
				this.state.zoomTo((zoom) => zoom.onto(row.from, row.to));
			} else if (row?.mayOpen && zone === 'name') {
				this.state.setOpen(row, !this.state.tree.isOpen(row));
			}
		});
	}

	private ranged(): Ranged {
		const { state } = this;
		const area = () => ({ left: this.places.names, width: this.places.width - this.places.names });
		return {
			zoom: state.zoom,
			get area() {
				return area();
			},
			zoomTo: (change) => state.zoomTo(change),
			beginPinch: () => (this.drag = undefined),
		};
	}

	private press(event: PointerEvent): void {
		if (event.button === 0 && event.isPrimary && event.offsetX < this.scroller.clientWidth) {
			const { zoom } = this.state;
			const x = event.clientX - this.scroller.getBoundingClientRect().left;
			const { zone } = this.placeAt(event);
			// Names that stand above their bars are on the axis of time, too.
			const isBar = this.places.isStacked && zone !== 'head';
			this.drag = { x, at: x, from: zoom.from, to: zoom.to, zone: isBar ? 'bars' : zone, isDragged: false };
		}
	}

	private move(event: PointerEvent): void {
		const place = this.placeAt(event);
		const { drag, state } = this;
		if (!drag) {
			this.hover(place.index, place.zone === 'bars' || place.zone === 'head' ? place.time : -1);
			if (place.row && event.pointerType === 'mouse') {
				showTip(event, rowTip(state.model, place.row));
			} else {
				hideTip();
			}
			return;
		}
		hideTip();
		drag.at = event.clientX - this.scroller.getBoundingClientRect().left;
		if (!drag.isDragged && Math.abs(drag.at - drag.x) > CLICK_PIXELS && (drag.zone === 'head' || drag.zone === 'bars')) {
			drag.isDragged = true;
			this.scroller.setPointerCapture(event.pointerId);
		}
		if (drag.isDragged && drag.zone === 'bars') {
			const moved = ((drag.x - drag.at) / (this.places.width - this.places.names)) * (drag.to - drag.from);
			state.zoomTo((zoom) => zoom.set(drag.from + moved, drag.to + moved));
		}
		this.drawing.redraw();
	}

	private release(event: PointerEvent): void {
		const { drag, state, places } = this;
		this.drag = undefined;
		if (!drag) {
			return;
		}
		if (drag.isDragged) {
			if (drag.zone === 'head') {
				const time = (x: number) => drag.from + ((x - places.names) / (places.width - places.names)) * (drag.to - drag.from);
				state.zoomTo((zoom) => zoom.set(time(Math.min(drag.x, drag.at)), time(Math.max(drag.x, drag.at))));
			}
			return;
		}
		const { row, zone } = this.placeAt(event);
		if (row && (zone === 'twisty' || row.kind === 'each')) {
			state.setOpen(row, !state.tree.isOpen(row));
		}
		if (row && zone !== 'twisty') {
			state.choose(row);
		}
	}

	private hover(row: number, time: number): void {
		if (row !== this.hovered || time !== this.pointerTime) {
			this.hovered = row;
			this.pointerTime = time;
			this.drawing.redraw();
		}
		if (row < 0) {
			hideTip();
		}
	}
}
