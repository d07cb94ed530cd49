/* Waterfall and flame graph with what steers them: zoom, search, the minimap, the legend, the details. */
import { el, replace } from '../ui/dom';
import { count, plural } from '../ui/format';
import type { Command } from '../ui/keys';
import { DetailsPanel } from './details';
import { Flame } from './flame';
import type { Ranged } from './gestures';
import { LAYER_TEXTS } from './head';
import { Minimap } from './minimap';
import { LAYERS, titleOf } from './model';
import { Breaks } from './split';
import { failedNodes } from './statements';
import type { ViewState } from './state';
import type { Links } from './surroundings';
import { Waterfall } from './waterfall';

export type Look = 'waterfall' | 'flame';

const ZOOM_STEP = 0.6;
const MOVE_STEP = 0.2;
const LONGEST_SOUGHT = 200;

function button(label: string, title: string, run: () => void): HTMLButtonElement {
	return el('button', { type: 'button', title, 'aria-label': title, on: { click: run } }, label);
}

export class Timeline {
	readonly element: HTMLElement;
	readonly waterfall: Waterfall;
	readonly flame: Flame;
	look: Look = 'waterfall';
	private readonly minimap: Minimap;
	private readonly details: DetailsPanel;
	private readonly looks: Readonly<Record<Look, HTMLButtonElement>>;
	private readonly find: HTMLInputElement;
	private readonly foundText = el('span', { class: 'muted small', role: 'status' });
	private readonly body: HTMLElement;
	private foundNode = -1;
	private readonly hint = el('p', { class: 'muted small legend-hint' });

	constructor(
		private readonly state: ViewState,
		links: Links | undefined,
		private readonly onLook: () => void,
	) {
		this.waterfall = new Waterfall(state);
		this.flame = new Flame(state);
		this.minimap = new Minimap(state);
		this.details = new DetailsPanel(state, links);
		this.looks = {
			waterfall: button('Waterfall', 'Waterfall ( w )', () => this.show('waterfall')),
			flame: button('Flame graph', 'Flame graph ( f )', () => this.show('flame')),
		};
		this.find = el('input', {
			type: 'search',
			class: 'find',
			placeholder: 'Find a call',
			'aria-label': 'Find a call of this request',
			spellcheck: 'false',
			autocomplete: 'off',
			maxlength: LONGEST_SOUGHT,
			on: { input: () => this.search(), keydown: (event) => this.findKey(event) },
		});
		this.body = el('div', { class: 'timeline-body' }, el('div', { class: 'timeline-drawings' }, this.waterfall.element, this.flame.element, this.legend()), this.details.element);
		this.element = el('div', { class: 'timeline' }, this.toolbar(), this.minimap.element, this.body);
		state.on((change) => {
			if (change === 'choice') {
				this.body.classList.toggle('has-choice', state.choice !== undefined);
			}
			if (change === 'marks' && !state.marksOf.startsWith('search')) {
				this.seekNothing();
			}
		});
		this.show('waterfall');
	}

	show(look: Look): void {
		this.look = look;
		for (const [name, each] of Object.entries(this.looks)) {
			each.setAttribute('aria-pressed', String(name === look));
		}
		this.waterfall.element.hidden = look !== 'waterfall';
		this.flame.element.hidden = look !== 'flame';
		this.minimap.element.hidden = look !== 'waterfall';
		this.element.classList.toggle('is-flame', look === 'flame');
		this.body.classList.toggle('has-choice', this.state.choice !== undefined);
		if (look === 'flame') {
			this.flame.lookedAt();
		}
		replace(
			this.hint,
			look === 'waterfall'
				? 'Solid: at work itself. Pale: what it called. Line below: nothing else held the request up then.'
				: 'As wide as the time it took; calls of the same way are one. Double click opens a frame.',
		);
		this.onLook();
	}

	get commands(): readonly Command[] {
		return [
			{ keys: ['w'], text: 'Waterfall', run: does(() => this.show('waterfall')) },
			{ keys: ['f'], text: 'Flame graph', run: does(() => this.show('flame')) },
			{ keys: ['ArrowDown', 'j'], text: 'Next call', run: does(() => this.step('down')) },
			{ keys: ['ArrowUp', 'k'], text: 'Call before', run: does(() => this.step('up')) },
			{ keys: ['ArrowRight', 'l'], text: 'Open the row, or go into it', run: does(() => this.step('right')) },
			{ keys: ['ArrowLeft', 'h'], text: 'Close the row, or go out of it', run: does(() => this.step('left')) },
			{ keys: ['Enter'], text: 'To the details of the call', run: (event) => this.enter(event) },
			{ keys: ['PageDown'], text: 'A page down', run: does(() => this.move(this.waterfall.page)) },
			{ keys: ['PageUp'], text: 'A page up', run: does(() => this.move(-this.waterfall.page)) },
			{ keys: ['Home'], text: 'First call', run: does(() => this.move(-Infinity)) },
			{ keys: ['End'], text: 'Last call', run: does(() => this.move(Infinity)) },
			{ keys: ['+', '='], text: 'Zoom in', run: does(() => this.zoom(ZOOM_STEP)) },
			{ keys: ['-'], text: 'Zoom out', run: does(() => this.zoom(1 / ZOOM_STEP)) },
			{ keys: ['0'], text: 'All of the time', run: does(() => this.zoom(Infinity)) },
			{ keys: ['z'], text: 'Zoom onto the call', run: does(() => this.zoomOntoChoice()) },
			{ keys: ['<', ','], text: 'Earlier', run: does(() => this.pan(-MOVE_STEP)) },
			{ keys: ['>', '.'], text: 'Later', run: does(() => this.pan(MOVE_STEP)) },
			{ keys: ['n'], text: 'Next error', run: does(() => this.nextFailure(1)) },
			{ keys: ['N'], text: 'Error before', run: does(() => this.nextFailure(-1)) },
			{ keys: ['p'], text: 'Next part of the critical path', run: does(() => this.nextStep()) },
			{ keys: ['e'], text: 'Open all rows', run: does(() => void this.setAll(true)) },
			{ keys: ['c'], text: 'Close all rows', run: does(() => void this.setAll(false)) },
			{ keys: ['s'], text: 'Find a call', run: does(() => this.find.focus()) },
			{ keys: ['Escape'], text: 'Choose and mark nothing', run: does(() => this.clear()) },
		];
	}

	end(): void {
		this.waterfall.end();
		this.flame.end();
		this.minimap.end();
	}

	private toolbar(): HTMLElement {
		return el(
			'div',
			{ class: 'timeline-tools row' },
			el('div', { class: 'joined', role: 'group', 'aria-label': 'Drawing' }, this.looks.waterfall, this.looks.flame),
			el('div', { class: 'joined', role: 'group', 'aria-label': 'Zoom' }, button('−', 'Zoom out ( - )', () => this.zoom(1 / ZOOM_STEP)), button('+', 'Zoom in ( + )', () => this.zoom(ZOOM_STEP)), button('All', 'All of the time ( 0 )', () => this.zoom(Infinity))),
			el('div', { class: 'joined of-rows', role: 'group', 'aria-label': 'Rows' }, button('Open all', 'Open all rows ( e )', () => void this.setAll(true)), button('Close all', 'Close all rows ( c )', () => void this.setAll(false))),
			this.find,
			this.foundText,
		);
	}

	private legend(): HTMLElement {
		const used = LAYERS.filter((_, i) => this.state.model.layer.includes(i));
		return el(
			'div',
			{ class: 'legend row small' },
			used.map((layer) => el('span', {}, el('i', { class: `layer-dot layer-${layer}` }), LAYER_TEXTS[layer])),
			el('span', { class: 'of-rows' }, el('i', { class: 'path-line' }), 'critical path'),
			this.hint,
		);
	}

	private zoom(factor: number): void {
		this.zoomed.zoomTo((zoom) => (factor === Infinity ? zoom.set(0, zoom.whole) : zoom.by(factor, this.middle())));
	}

	/* What the drawing that is seen is zoomed by. */
	private get zoomed(): Pick<Ranged, 'zoom' | 'zoomTo'> {
		return this.look === 'flame' ? this.flame : this.state;
	}

	/* Of what is chosen if it is seen, so that it stays in sight. */
	private middle(): number {
		const { zoom } = this.zoomed;
		const chosen = this.look === 'flame' ? this.flame.chosenRange : this.waterfall.rows[this.waterfall.chosen];
		const middle = chosen ? (chosen.from + chosen.to) / 2 : NaN;
		return middle > zoom.from && middle < zoom.to ? middle : (zoom.from + zoom.to) / 2;
	}

	private pan(share: number): void {
		this.zoomed.zoomTo((zoom) => zoom.move((zoom.to - zoom.from) * share));
	}

	private zoomOntoChoice(): void {
		const row = this.waterfall.rows[this.waterfall.chosen];
		if (this.look === 'flame') {
			this.flame.open(this.flame.chosen);
		} else if (row) {
			this.state.zoomTo((zoom) => zoom.onto(row.from, row.to));
		}
	}

	private step(direction: 'up' | 'down' | 'left' | 'right'): void {
		if (this.look === 'flame') {
			this.flame.go(direction);
			return;
		}
		const row = this.waterfall.rows[this.waterfall.chosen];
		if (direction === 'up' || direction === 'down' || !row) {
			this.move(direction === 'up' ? -1 : 1);
			return;
		}
		const isOpen = this.state.tree.isOpen(row);
		if (direction === 'right' && row.mayOpen && !isOpen) {
			this.state.setOpen(row, true);
		} else if (direction === 'right' && isOpen) {
			this.move(1);
		} else if (direction === 'left' && isOpen) {
			this.state.setOpen(row, false);
		} else if (direction === 'left' && row.above) {
			this.state.choose(row.above);
		}
	}

	private move(rows: number): void {
		const { waterfall, state } = this;
		const last = waterfall.rows.length - 1;
		const { chosen } = waterfall;
		const to = chosen < 0 && Math.abs(rows) === 1 ? waterfall.top : Math.min(last, Math.max(0, chosen + rows));
		state.choose(waterfall.rows[to]);
	}

	private enter(event: KeyboardEvent): boolean {
		if (event.target instanceof HTMLElement && event.target.matches('a, button, summary')) {
			return false;
		}
		this.details.focus();
		return true;
	}

	private nextFailure(direction: 1 | -1): void {
		const nodes = failedNodes(this.state.model);
		const current = nodes.indexOf(this.state.choice?.nodes[0] ?? -1);
		const next = nodes[(current + direction + nodes.length) % Math.max(1, nodes.length)] ?? nodes[0];
		if (next !== undefined) {
			this.state.reveal(next);
		}
	}

	private nextStep(): void {
		const { model, choice } = this.state;
		const last = model.stepNode.lastIndexOf(choice?.nodes.at(-1) ?? -1);
		const next = model.stepNode[last + 1] ?? model.stepNode[0];
		if (next !== undefined) {
			this.state.reveal(next, String(next));
		}
	}

	private async setAll(isOpen: boolean): Promise<void> {
		const { tree } = this.state;
		const breaks = new Breaks();
		for (const rows = isOpen ? tree.makeAll() : undefined; rows && !rows.next().done;) {
			await breaks.take();
		}
		tree.setAll(isOpen);
		tree.lay();
		this.state.tell('rows');
	}

	/* What is looked for, and which call of those that were found was gone to; -1 for none. */
	get sought(): string {
		return this.find.value.trim();
	}

	get found(): number {
		return this.foundNode;
	}

	restoreFind(text: string, node: number): void {
		this.find.value = text.slice(0, LONGEST_SOUGHT);
		this.search();
		if (this.state.marks?.[node]) {
			this.foundNode = node;
			this.tellFound();
		}
	}

	private seekNothing(): void {
		this.find.value = '';
		this.foundNode = -1;
		replace(this.foundText);
	}

	private clear(): void {
		this.seekNothing();
		this.state.unmark();
		this.state.choose(undefined);
	}

	/* Marks the calls whose name or statement holds the text. */
	private search(): void {
		const { state } = this;
		const text = this.sought.toLowerCase();
		this.foundNode = -1;
		if (text === '') {
			state.unmark();
			return;
		}
		const { model } = state;
		const holds = model.labels.map((label) => label.toLowerCase().includes(text));
		const nodes: number[] = [];
		for (let node = 0; node < model.size; node++) {
			if (!model.isRepeated[node] && (holds[model.label[node] ?? 0] || (model.spans[node]?.name ?? '').toLowerCase().includes(text))) {
				nodes.push(node);
			}
		}
		state.mark(`search ${text}`, nodes);
		replace(this.foundText, nodes.length > 0 ? plural(nodes.length, 'call') : 'none');
	}

	/* Enter goes from one that was found to the next. */
	private findKey(event: KeyboardEvent): void {
		const { state } = this;
		if (event.key === 'Escape') {
			this.clear();
			this.focus();
			event.preventDefault();
		} else if (event.key === 'Enter' && state.marks) {
			this.nextFound(event.shiftKey ? -1 : 1);
		}
	}

	private marked(): readonly number[] {
		const nodes: number[] = [];
		this.state.marks?.forEach((is, node) => is && nodes.push(node));
		return nodes;
	}

	private tellFound(): void {
		const marked = this.marked();
		const at = marked.indexOf(this.foundNode);
		replace(this.foundText, `${count(at + 1)} of ${plural(marked.length, 'call')}: ${titleOf(this.state.model, this.foundNode).slice(0, 40)}`);
	}

	private nextFound(direction: 1 | -1): void {
		const marked = this.marked();
		const at = marked.indexOf(this.foundNode) + direction;
		const next = (at < 0 ? marked.length - 1 : at) % Math.max(1, marked.length);
		const node = marked[next];
		if (node !== undefined) {
			this.foundNode = node;
			this.tellFound();
			this.state.reveal(node);
		}
	}

	private focus(): void {
		(this.look === 'flame' ? this.flame : this.waterfall).focus();
	}
}

function does(run: () => void): () => undefined {
	return () => {
		run();
		return undefined;
	};
}
