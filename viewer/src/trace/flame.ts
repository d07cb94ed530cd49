/*
 * The flame graph: who called whom from top to bottom, as wide as the time that it took, the widest to
 * the left. A frame that is opened takes the whole width.
 */
import { el } from '../ui/dom';
import { duration, share, times } from '../ui/format';
import { Drawing } from './canvas';
import { FlameTree, type Frame } from './flame_tree';
import { LAYERS } from './model';
import type { ViewState } from './state';
import { hideTip, showTip } from './tip';

const FRAME_HEIGHT = 20;
const LEAST_PIXELS = 0.4;
const LEAST_TEXT = 24;

let flames = 0;

export class Flame {
	readonly element: HTMLElement;
	readonly drawing: Drawing;
	private readonly scroller: HTMLElement;
	private readonly spacer = el('div', { class: 'waterfall-space' });
	private readonly mirror = el('div', { class: 'unseen', role: 'presentation' });
	private readonly name = `frames-${++flames}`;
	private known: FlameTree | undefined;
	private root: Frame | undefined;
	private hovered: Frame | undefined;
	private chosenNode: number | undefined;
	private chosenFrame: Frame | undefined;

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
		scroller.addEventListener('pointermove', (event) => this.hover(event));
		scroller.addEventListener('pointerleave', () => this.unhover());
		scroller.addEventListener('click', (event) => this.choose(this.frameAt(event)));
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

	/* The frame that has the whole width, by one of its spans; -1: all have it. */
	get opened(): number {
		return this.root?.nodes[0] ?? -1;
	}

	set opened(node: number) {
		this.root = node < 0 ? undefined : this.tree.frameOf(node);
		this.drawing.redraw();
	}

	focus(): void {
		this.scroller.focus({ preventScroll: true });
	}

	open(frame: Frame | undefined): void {
		this.root = frame?.above ? frame : undefined;
		this.state.tell('zoom');
	}

	choose(frame: Frame | undefined): void {
		if (frame) {
			this.state.choose({ nodes: frame.nodes, label: frame.label, key: '' });
			this.scrollTo(frame);
		}
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
		return this.drawing.width / Math.max(1e-9, this.root?.value ?? this.tree.value);
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
		const at = (this.root?.at ?? 0) + (event.clientX - box.left) / this.scale;
		let frame = this.tree.tops.find((each) => at >= each.at && at < each.at + each.value);
		while (frame && frame.depth < depth) {
			frame = this.tree.below(frame).find((each) => at >= each.at && at < each.at + each.value);
		}
		return frame;
	}

	private draw(): void {
		const { drawing, tree, root, scale, scroller } = this;
		const { palette, width } = drawing;
		drawing.clear(palette.back);
		const from = root?.at ?? 0;
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
		shown.push(...(chosen ? this.tree.below(chosen) : []));
		this.mirror.replaceChildren(...shown.slice(0, 300).map((frame) => this.item(frame, frame === chosen)));
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

function isWithin(frame: Frame, root: Frame): boolean {
	let at: Frame | undefined = frame;
	while (at && at !== root) {
		at = at.above;
	}
	return at === root;
}
