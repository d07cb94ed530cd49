/* A request, or a trace, with all that is known of it: the same in the collector's pages and in a file. */
import { el } from '../ui/dom';
import type { Command } from '../ui/keys';
import { findingsElement } from './findings';
import { requestHead, traceHead } from './head';
import type { Model } from './model';
import type { TimeRange, Zoom } from './scale';
import { ViewState } from './state';
import { codeGroups, failedNodes, statementGroups } from './statements';
import type { Surroundings } from './surroundings';
import { errorsTab, requestTab, resourcesTab } from './tab_parts';
import { sqlTab } from './tab_sql';
import { Tabs } from './tabs';
import { Timeline } from './timeline';

const PATIENCE_MS = 250;
const LONGEST_LIST = 2000;

export class TraceView {
	readonly element: HTMLElement;
	readonly state: ViewState;
	readonly timeline: Timeline;
	private readonly tabs: Tabs;
	private waiting = 0;
	private isRestored = false;

	constructor(
		private readonly model: Model,
		private readonly surroundings: Surroundings,
	) {
		this.state = new ViewState(model);
		const toTimeline = () => {
			this.tabs.show('timeline');
			this.timeline.show('waterfall');
			this.timeline.element.scrollIntoView({ block: 'nearest' });
			this.hold();
		};
		this.timeline = new Timeline(this.state, surroundings.links, () => this.hold());
		const statements = () => sqlTab(this.state, surroundings, toTimeline);
		this.tabs = new Tabs(
			'What is known of it',
			[
				{ name: 'timeline', title: 'Timeline', content: () => this.timeline.element },
				{ name: 'sql', title: 'SQL', count: statementGroups(model).length, content: statements },
				{ name: 'errors', title: 'Errors', count: failedNodes(model).length, content: () => errorsTab(this.state, toTimeline) },
				{ name: 'request', title: model.isTrace ? 'Requests' : 'Request', content: () => requestTab(model) },
				{ name: 'resources', title: 'Memory, CPU', content: () => resourcesTab(this.state, toTimeline) },
			],
			() => this.hold(),
		);
		const first = model.parts[0];
		const head = model.isTrace || !first ? traceHead(model, surroundings) : requestHead(model, first.row, surroundings);
		this.element = el('div', { class: 'page trace-page' }, head, findingsElement(this.state, toTimeline), this.tabs.element);
		this.tabs.show('timeline');
	}

	/* REQUIRES: the element is in the page. */
	restore(): void {
		const { state, timeline } = this;
		const { get } = this.surroundings;
		state.tree.changes = get('open');
		state.tree.lay();
		state.tell('rows');
		restoreRange(get('zoom'), (change) => state.zoomTo(change));
		timeline.show(get('view') === 'flame' ? 'flame' : 'waterfall');
		this.restoreMarks();
		this.restoreChoice(get('span'));
		if (get('frame')) {
			timeline.flame.opened = Number(get('frame'));
		}
		restoreRange(get('part'), (change) => timeline.flame.zoomTo(change));
		if (get('top')) {
			timeline.waterfall.top = Number(get('top'));
		}
		if (get('down')) {
			timeline.flame.top = Number(get('down'));
		}
		this.tabs.show(get('tab') || 'timeline');
		this.isRestored = true;
		state.on(() => this.holdSoon());
		timeline.waterfall.onScroll(() => this.holdSoon());
		timeline.flame.onScroll(() => this.holdSoon());
		document.addEventListener('focusin', this.holdNow);
	}

	get commands(): readonly Command[] {
		return this.timeline.commands.map((command) => ({ ...command, run: (event) => (this.isForTimeline(command, event) ? command.run(event) : false) }));
	}

	end(): void {
		clearTimeout(this.waiting);
		document.removeEventListener('focusin', this.holdNow);
		this.timeline.end();
	}

	private restoreMarks(): void {
		const { model, timeline } = this;
		const { get } = this.surroundings;
		const [, kind, at] = /^(statement|function)-(\d+)$/.exec(get('marked')) ?? [];
		const first = Number(at);
		if (get('finding')) {
			this.markAs(`finding ${get('finding')}`, model.findings[Number(get('finding'))]?.nodes);
		} else if (kind === 'statement') {
			this.markAs(`statement ${first}`, statementGroups(model).find((group) => group.nodes[0] === first)?.nodes);
		} else if (kind === 'function') {
			const groups = model.parts.flatMap((part) => codeGroups(model, part));
			this.markAs(`function ${first}`, groups.find((group) => group.nodes[0] === first)?.nodes);
		} else if (get('find')) {
			timeline.restoreFind(get('find'), Number(get('found') || -1));
		}
	}

	private markAs(of: string, nodes: readonly number[] | undefined): void {
		if (nodes) {
			this.state.mark(of, nodes);
		}
	}

	/* What the verdict rests on is chosen at first. */
	private restoreChoice(key: string): void {
		const { state, model } = this;
		if (this.timeline.flame.chooseByKey(key)) {
			return;
		}
		const node = Number(/\d+$/.exec(key)?.[0] ?? -1);
		if (node >= 0 && node < model.size) {
			state.reveal(node, key);
			return;
		}
		const evidence = model.findings[0]?.nodes[0];
		const row = evidence === undefined || key === 'none' ? undefined : state.tree.visible[state.tree.rowOf[evidence] ?? -1];
		if (row) {
			state.choose(row);
		}
	}

	/* On another tab, and where something else has the focus, keys mean what they mean everywhere. */
	private isForTimeline(command: Command, event: KeyboardEvent): boolean {
		if (command.keys.includes('w') || command.keys.includes('f')) {
			this.tabs.show('timeline');
			return true;
		}
		const isOwnKey = event.target instanceof HTMLElement && !event.target.matches('h1') && event.target.closest('[role=tablist], .table, .details, .request-head, .verdicts, header.top') !== null;
		const moves = event.key.startsWith('Arrow') || ['Enter', 'Home', 'End', 'PageUp', 'PageDown'].includes(event.key);
		return this.tabs.current === 'timeline' && !(isOwnKey && moves);
	}

	/* Whoever turns to something else may leave with it. */
	private readonly holdNow = () => {
		if (this.waiting) {
			this.hold();
		}
	};

	private holdSoon(): void {
		clearTimeout(this.waiting);
		this.waiting = setTimeout(() => this.hold(), PATIENCE_MS);
	}

	/* Has the address say what is shown. */
	private hold(): void {
		const { state, timeline } = this;
		clearTimeout(this.waiting);
		this.waiting = 0;
		if (!this.isRestored) {
			return;
		}
		const { zoom, choice } = state;
		const [, marked] = /^((?:statement|function) \d+)$/.exec(state.marksOf) ?? [];
		const usual = this.usualKey();
		this.surroundings.set({
			tab: this.tabs.current === 'timeline' ? '' : this.tabs.current,
			view: timeline.look === 'flame' ? 'flame' : '',
			span: choice ? (choice.key === usual ? '' : choice.key) : usual ? 'none' : '',
			zoom: zoom.isWhole ? '' : rangeText(zoom),
			open: shortList(state.tree.changes),
			top: timeline.waterfall.top > 0 ? String(timeline.waterfall.top) : '',
			down: timeline.flame.top > 0 ? String(timeline.flame.top) : '',
			frame: timeline.flame.opened >= 0 ? String(timeline.flame.opened) : '',
			part: timeline.flame.isZoomed ? rangeText(timeline.flame.zoom) : '',
			finding: state.marksOf.startsWith('finding ') ? state.marksOf.slice(8) : '',
			marked: marked?.replace(' ', '-') ?? '',
			find: timeline.sought,
			found: timeline.found >= 0 ? String(timeline.found) : '',
		});
	}

	private usualKey(): string {
		const evidence = this.model.findings[0]?.nodes[0];
		return evidence === undefined ? '' : (this.state.tree.visible[this.state.tree.rowOf[evidence] ?? -1]?.key ?? '');
	}
}

function rangeText({ from, to }: TimeRange): string {
	return `${Number(from.toFixed(3))}-${Number(to.toFixed(3))}`;
}

function restoreRange(text: string, zoomTo: (change: (zoom: Zoom) => void) => void): void {
	const [from, to] = text.split('-').map(Number);
	if (from !== undefined && to !== undefined && to > from) {
		zoomTo((zoom) => zoom.set(from, to));
	}
}

/* As many of the rows that were opened as an address may hold. */
function shortList(text: string): string {
	return text.length > LONGEST_LIST ? text.slice(0, text.lastIndexOf('~', LONGEST_LIST)) : text;
}
