/*
 * The flame graph: who called whom from top to bottom, as wide as the time that it took, the widest to
 * the left. A frame that is opened takes the whole width; any part may be zoomed to.
 */
import { el } from '../ui/dom';
import { duration, share, times } from '../ui/format';
import { Drawing } from './canvas';
import { FlameTree, type Frame } from './flame_tree';
import { followGestures } from './gestures';
import { LAYERS } from './model';
import { Zoom, type TimeRange } from './scale';
import type { ViewState } from './state';
import { hideTip, showTip } from './tip';

const FRAME_HEIGHT = 20;
const LEAST_PIXELS = 0.4;
const LEAST_TEXT = 24;
const CLICK_PIXELS = 4;

/* In front of a span's number: the frame that it is in. */
const FRAME = 'f';

let flames = 0;

export class Flame {
	readonly element: HTMLElement;
	readonly drawing: Drawing;
	private readonly scroller: HTMLElement;
	private readonly spacer = el('div', { class: 'waterfall-space' });
	private readonly mirror = el('div', { class: 'unseen', role: 'presentation' });
	private readonly name = `frames-${++flames}`;
	private known: FlameTree | undefined;
	private shown: Zoom | undefined;
	private root: Frame | undefined;
	private hovered: Frame | undefined;
	private chosenNode: number | undefined;
	private chosenFrame: Frame | undefined;
	private drag: { readonly x: number; readonly from: number; readonly to: number; isDragged: boolean } | undefined;

	constructor(private readonly state: ViewState) {
		this.scroller = el('div', { class: 'waterfall-scroll flame-scroll', role: 'tree', tabindex: 0, 'aria-label': 'Calls, as a flame graph' });
		this.drawing = new Drawing('waterfall-canvas', () => this.draw(), this.scroller);
		this.scroller.append(this.drawing.element, this.spacer, this.mirror);
		this.element = el('div', { class: 'waterfall' }, this.scroller);
		new ResizeObserver(() => this.resize()).observe(this.scroller);
		const { scroller } = this;
		for (const type of ['scroll', 'focus', 'blur']) {
			scroller.addEventListener(type, () => this.drawing.redraw());
		}
		followGestures(scroller, this);
		scroller.addEventListener('pointerdown', (event) => this.press(event));
		scroller.addEventListener('pointermove', (event) => this.move(event));
		scroller.addEventListener('pointerup', (event) => this.release(event));
		scroller.addEventListener('pointercancel', () => (this.drag = undefined));
		scroller.addEventListener('pointerleave', () => this.unhover());
		scroller.addEventListener('dblclick', (event) => this.open(this.frameAt(event)));
		state.on((change) => {
			if (change === 'choice') {
				this.describe();
			}
			this.drawing.redraw();
		});
	}

	/* Made when it is first looked at. */
	get tree(): FlameTree {
		this.known ??= new FlameTree(this.state.model);
		return this.known;
	}

	get chosen(): Frame | undefined {
		const node = this.state.choice?.nodes[0];
		if (node !== this.chosenNode) {
			this.chosenNode = node;
			this.chosenFrame = node === undefined ? undefined : this.tree.frameOf(node);
		}
		return this.chosenFrame;
	}

	get chosenRange(): TimeRange | undefined {
		const { chosen } = this;
		return chosen && { from: chosen.at, to: chosen.at + chosen.value };
	}

	/* The frame that has the whole width, by one of its spans; -1: all have it. */
	get opened(): number {
		return this.root?.nodes[0] ?? -1;
	}

	set opened(node: number) {
		this.open(node < 0 ? undefined : this.tree.frameOf(node));
	}

	/* How many frames are above what is seen. */
	get top(): number {
		return Math.round(this.scroller.scrollTop / FRAME_HEIGHT);
	}

	set top(frames: number) {
		this.scroller.scrollTop = frames * FRAME_HEIGHT;
	}

	onScroll(listener: () => void): void {
		this.scroller.addEventListener('scroll', listener);
	}

	/* What is shown of the width of all frames. */
	get zoom(): Zoom {
		this.shown ??= new Zoom(this.tree.value);
		return this.shown;
	}

	get area(): { readonly left: number; readonly width: number } {
		return { left: 0, width: this.drawing.width };
	}

	/* Whether it is something else than the opened frame, or all. */
	get isZoomed(): boolean {
		const zoom = this.shown;
		if (!zoom) {
			return false;
		}
		const usual = rangeOf(this.root, zoom);
		return zoom.from !== usual.from || zoom.to !== usual.to;
	}

	zoomTo(change: (zoom: Zoom) => void): void {
		const { zoom, root } = this;
		change(zoom);
		// Who goes out of a frame that was opened has all of them again.
		if (root && (zoom.from < root.at || zoom.to > root.at + root.value)) {
			this.root = undefined;
		}
		this.state.tell('zoom');
	}

	beginPinch(): void {
		this.drag = undefined;
	}

	focus(): void {
		this.scroller.focus({ preventScroll: true });
	}

	open(frame: Frame | undefined): void {
		const root = frame?.above ? frame : undefined;
		this.root = root;
		const { from, to } = rangeOf(root, this.zoom);
		this.zoom.set(from, to);
		this.state.tell('zoom');
	}

	choose(frame: Frame | undefined): void {
		if (frame) {
			this.state.choose({ nodes: frame.nodes, label: frame.label, key: FRAME + String(frame.nodes[0] ?? '') });
			this.scrollTo(frame);
		}
	}

	/* Chooses what such a key names; says whether it is one. */
	chooseByKey(key: string): boolean {
		const [, node] = new RegExp(`^${FRAME}(\\d+)$`).exec(key) ?? [];
		this.choose(node === undefined ? undefined : this.tree.frameOf(Number(node)));
		return node !== undefined;
	}

	/* To the frame above, the widest below, or the one beside. */
	go(direction: 'up' | 'down' | 'left' | 'right'): void {
		const { chosen } = this;
		if (!chosen) {
			this.choose(this.tree.tops[0]);
			return;
		}
		const beside = this.beside(chosen);
		const at = beside.indexOf(chosen);
		const next = { up: chosen.above, down: this.tree.below(chosen)[0], left: beside[at - 1], right: beside[at + 1] }[direction];
		if (next) {
			if (this.root && !isWithin(next, this.root)) {
				this.open(next);
			}
			this.choose(next);
		}
	}

	/* After it was hidden. */
	lookedAt(): void {
		this.resize();
		this.describe();
	}

	private resize(): void {
		if (this.element.hidden) {
			return;
		}
		this.spacer.style.setProperty('height', `${(this.tree.deepest + 1) * FRAME_HEIGHT + 4}px`);
		this.drawing.element.style.setProperty('height', `${this.scroller.clientHeight}px`);
		this.drawing.resize();
	}

	end(): void {
		hideTip();
		this.drawing.end();
	}

	private beside(frame: Frame): readonly Frame[] {
		return frame.above ? this.tree.below(frame.above) : this.tree.tops;
	}

	private get scale(): number {
		return this.drawing.width / (this.zoom.to - this.zoom.from);
	}

	private scrollTo(frame: Frame): void {
		const y = frame.depth * FRAME_HEIGHT;
		const { scrollTop, clientHeight } = this.scroller;
		if (y < scrollTop || y + FRAME_HEIGHT > scrollTop + clientHeight) {
			this.scroller.scrollTop = y - clientHeight / 2;
		}
	}

	private frameAt(event: MouseEvent): Frame | undefined {
		const box = this.scroller.getBoundingClientRect();
		const depth = Math.floor((event.clientY - box.top + this.scroller.scrollTop) / FRAME_HEIGHT);
		const at = this.zoom.from + (event.clientX - box.left) / this.scale;
		let frame = this.tree.tops.find((each) => at >= each.at && at < each.at + each.value);
		while (frame && frame.depth < depth) {
			frame = this.tree.below(frame).find((each) => at >= each.at && at < each.at + each.value);
		}
		return frame;
	}

	private draw(): void {
		const { drawing, tree, scale, scroller } = this;
		const { palette, width } = drawing;
		drawing.clear(palette.back);
		const { from } = this.zoom;
		const [top, bottom] = [scroller.scrollTop, scroller.scrollTop + drawing.height];
		const waiting = [...tree.tops];
		for (let frame = waiting.pop(); frame; frame = waiting.pop()) {
			const left = Math.max(0, (frame.at - from) * scale);
			const right = Math.min(width, (frame.at + frame.value - from) * scale);
			const y = frame.depth * FRAME_HEIGHT;
			if (right - left < LEAST_PIXELS || y > bottom) {
				continue;
			}
			if (y + FRAME_HEIGHT > top) {
				this.paint(frame, left, right, y - top);
			}
			for (const each of tree.below(frame)) {
				waiting.push(each);
			}
		}
	}

	private paint(frame: Frame, left: number, right: number, y: number): void {
		const { drawing, state, root } = this;
		const { context, palette } = drawing;
		const { marks } = state;
		const isAbove = root !== undefined && frame.depth < root.depth;
		const isDimmed = isAbove || (marks !== undefined && !frame.nodes.some((node) => marks[node]));
		const gap = right - left > 3 ? 1 : 0;
		context.fillStyle = palette.layers[frame.layer] ?? palette.muted;
		context.globalAlpha = isDimmed ? 0.35 : 1;
		context.fillRect(left, y, right - left - gap, FRAME_HEIGHT - 1);
		context.globalAlpha = 1;
		if (frame === this.chosen || frame === this.hovered) {
			context.strokeStyle = palette.text;
			context.lineWidth = frame === this.chosen ? 2 : 1;
			context.strokeRect(left + 1, y + 1, Math.max(1, right - left - gap - 2), FRAME_HEIGHT - 3);
		}
		if (right - left > LEAST_TEXT) {
			context.fillStyle = isDimmed ? palette.text : palette.onLayer;
			let x = left + 5;
			if (frame.isFailed) {
				context.fillText('⚠', x, y + FRAME_HEIGHT / 2);
				x += 15;
			}
			context.fillText(drawing.fit(frame.label, right - x - 4), x, y + FRAME_HEIGHT / 2);
		}
	}

	private press(event: PointerEvent): void {
		if (event.button === 0 && event.isPrimary && event.offsetX < this.scroller.clientWidth) {
			this.drag = { x: event.clientX, from: this.zoom.from, to: this.zoom.to, isDragged: false };
		}
	}

	private move(event: PointerEvent): void {
		const { drag } = this;
		if (drag && !drag.isDragged && Math.abs(event.clientX - drag.x) > CLICK_PIXELS) {
			drag.isDragged = true;
			this.scroller.setPointerCapture(event.pointerId);
		}
		if (drag?.isDragged) {
			hideTip();
			const moved = (drag.x - event.clientX) / this.scale;
			this.zoomTo((zoom) => zoom.set(drag.from + moved, drag.to + moved));
		} else {
			this.hover(event);
		}
	}

	private release(event: PointerEvent): void {
		if (this.drag && !this.drag.isDragged) {
			this.choose(this.frameAt(event));
		}
		this.drag = undefined;
	}

	private hover(event: PointerEvent): void {
		const frame = this.frameAt(event);
		if (frame !== this.hovered) {
			this.hovered = frame;
			this.drawing.redraw();
		}
		if (!frame || event.pointerType !== 'mouse') {
			hideTip();
			return;
		}
		showTip(event, [
			el('p', { class: 'tip-name' }, frame.nodes.length > 1 && el('b', {}, times(frame.nodes.length), ' '), frame.label),
			el('p', { class: 'muted' }, this.figures(frame)),
			frame.isFailed && el('p', { class: 'bad' }, 'failed'),
		]);
	}

	private unhover(): void {
		this.hovered = undefined;
		hideTip();
		this.drawing.redraw();
	}

	private figures(frame: Frame): string {
		return `${duration(frame.value)} (${share(frame.value / this.tree.value)}), itself ${duration(frame.self)}`;
	}

	/* The chosen frame, what is above it and right below, as elements. */
	private describe(): void {
		if (this.element.hidden) {
			return;
		}
		const { chosen } = this;
		const shown: Frame[] = [];
		for (let frame = chosen; frame; frame = frame.above) {
			shown.unshift(frame);
		}
		const below = chosen ? this.tree.below(chosen) : [];
		this.mirror.replaceChildren(...[...shown, ...below].slice(0, 300).map((frame) => this.item(frame, frame === chosen)));
		if (chosen) {
			this.scroller.setAttribute('aria-activedescendant', `${this.name}-${chosen.id}`);
		}
	}

	private item(frame: Frame, isChosen: boolean): HTMLElement {
		const beside = this.beside(frame);
		const many = frame.nodes.length > 1 ? `${frame.nodes.length} times ` : '';
		return el(
			'div',
			{
				role: 'treeitem',
				id: `${this.name}-${frame.id}`,
				'aria-level': frame.depth + 1,
				'aria-posinset': beside.indexOf(frame) + 1,
				'aria-setsize': beside.length,
				'aria-selected': String(isChosen),
			},
			`${many}${frame.label}, ${LAYERS[frame.layer] ?? 'other'}, ${this.figures(frame)}${frame.isFailed ? ', failed' : ''}`,
		);
	}
}

/* What is shown once the frame is opened. */
function rangeOf(root: Frame | undefined, { whole }: Zoom): TimeRange {
	const usual = new Zoom(whole);
	if (root) {
		usual.set(root.at, root.at + root.value);
	}
	return usual;
}

function isWithin(frame: Frame, root: Frame): boolean {
	let at: Frame | undefined = frame;
	while (at && at !== root) {
		at = at.above;
	}
	return at === root;
}
