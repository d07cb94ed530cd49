/* Everything that is known of what was chosen: of one call, or of several that do the same. */
import type { Failure, Span } from '../api/types';
import { el, replace, shortened, type Child } from '../ui/dom';
import { count, duration, exactTime, plural, share, timeElement, times } from '../ui/format';
import { childrenOf, codeAbove, isHttpCall, LAYERS, titleOf, wayTo, type Model } from './model';
import type { Choice, ViewState } from './state';
import type { Links } from './surroundings';
import { copyButton, facts, fieldSection, longText, place, section, sqlElement, stackList } from './texts';

const LISTED = 50;

export function layerChip(layer: string): HTMLElement {
	return el('span', { class: 'layer-chip' }, el('i', { class: `layer-dot layer-${layer}` }), layer);
}

/* When it happened; nothing where that is not known. */
function failureTime(model: Model, node: number, { time_ms: ms }: Failure): Child {
	const [part, span] = [model.parts[model.part[node] ?? 0], model.spans[node]];
	if (!part || !span || ms === undefined || ms < span.start_ms) {
		return null;
	}
	const passed = (model.start[node] ?? 0) + ms - span.start_ms;
	return el('span', { class: 'muted small' }, ' ', timeElement(part.row.start_ms + ms, `${duration(passed)} after the begin`));
}

/* What failed in the call. */
export function failureElements(model: Model, node: number): HTMLElement[] {
	return (model.spans[node]?.failures ?? []).map((failure) => failureElement(failure, failureTime(model, node, failure)));
}

function failureElement(failure: Failure, time: Child): HTMLElement {
	return el(
		'div',
		{ class: 'failure' },
		el('p', {}, el('b', { class: 'bad' }, shortened(failure.type ?? 'Error', 300)), failure.level ? ` ${shortened(failure.level, 60)}` : '', time),
		failure.message !== undefined && longText(failure.message),
		failure.file !== undefined && el('p', { class: 'mono muted' }, longText(place(failure.file, failure.line), undefined, 500)),
	);
}

export class DetailsPanel {
	readonly element = el('aside', { class: 'details panel', 'aria-label': 'Details of what is chosen' });
	private body = el('div');
	private waiting = 0;

	constructor(
		private readonly state: ViewState,
		private readonly links: Links | undefined,
	) {
		state.on((change) => {
			// Whoever goes fast through the rows wants to see the last of them.
			if (change === 'choice') {
				this.waiting ||= requestAnimationFrame(() => this.show());
			}
		});
		this.show();
	}

	focus(): void {
		if (this.waiting) {
			// What is about to be replaced would lose it.
			cancelAnimationFrame(this.waiting);
			this.show();
		}
		this.body.focus();
		this.body.scrollIntoView({ block: 'nearest' });
	}

	private show(): void {
		this.waiting = 0;
		// A new one is at its top, without the page being laid out to find that out.
		const had = this.body.contains(document.activeElement);
		this.body = el('div', { class: 'details-body', tabindex: -1 }, this.content());
		replace(this.element, this.body);
		if (had) {
			this.body.focus({ preventScroll: true });
		}
	}

	private content(): Child {
		const { choice, model } = this.state;
		const node = choice?.nodes[0];
		if (!choice || node === undefined) {
			return el('p', { class: 'muted' }, 'Choose a call to see everything that is known of it.');
		}
		const close = el('button', { type: 'button', class: 'plain', 'aria-label': 'Close', on: { click: () => this.state.choose(undefined) } }, '✕');
		const span = model.spans[node];
		const layer = LAYERS[model.layer[node] ?? 0] ?? 'other';
		const many = choice.nodes.length > 1;
		const way = wayTo(model, node).slice(0, -1);
		return [
			el('header', { class: 'details-head' }, el('h2', {}, many && `${times(choice.nodes.length)} `, shortened(choice.label, 160)), close),
			el('p', { class: 'row small' }, layerChip(layer), span && el('span', { class: 'mono cut' }, shortened(spanName(span), 200)), choice.nodes.some((each) => model.isFailed[each]) && el('b', { class: 'bad' }, 'failed')),
			many ? this.ofMany(choice) : span && this.ofOne(node, span),
			way.length > 0 && section('Called by', this.way(way)),
		];
	}

	/* The way down to it; each step can be chosen. */
	private way(way: readonly number[]): Child {
		const { model } = this.state;
		const step = (node: number) =>
			el('li', {}, el('button', { type: 'button', class: 'link', on: { click: () => void this.state.reveal(node) } }, shortened(titleOf(model, node), 90)), ' ', el('span', { class: 'muted' }, duration((model.end[node] ?? 0) - (model.start[node] ?? 0))));
		return el('ol', { class: 'way' }, way.slice(-12).reverse().map(step), way.length > 12 && el('li', { class: 'muted' }, `and ${plural(way.length - 12, 'more')}`));
	}

	private ofOne(node: number, span: Span): Child {
		const { model } = this.state;
		const took = (model.end[node] ?? 0) - (model.start[node] ?? 0);
		const part = model.parts[model.part[node] ?? 0];
		const held = model.held[node] ?? 0;
		const statement = span.query ?? span.statement;
		return [
			facts([
				['Took', `${duration(took)} (${share(took / Math.max(1, model.duration))} of all)`],
				['Itself', duration(model.self[node])],
				['Held all up for', held > 0 && duration(held)],
				['From', part && el('span', { title: exactTime(part.row.start_ms + span.start_ms) }, duration(model.start[node]))],
				['Status', isHttpCall(span) && (span.status ? String(span.status) : 'no answer')],
				['Host', !isHttpCall(span) && span.host && longText(span.host + (span.port ? `:${span.port}` : ''), undefined, 300)],
				['Database', (span.database_name ?? span.database) && longText([span.database_server, span.database_name ?? span.database].filter(Boolean).join(' / '), undefined, 300)],
				['Runs', span.async && 'beside what called it'],
				['Calls', childrenOf(model, node).length > 0 && count(childrenOf(model, node).length)],
				['Span', span.id && el('span', { class: 'mono' }, shortened(span.id, 60))],
			]),
			(span.failures ?? []).length > 0 && section('Error', failureElements(model, node)),
			statement && section('SQL', sqlElement(statement), copyButton(statement, 'the SQL')),
			span.statement && this.links && el('p', { class: 'small' }, this.links.statement(span.statement, 'Requests that run this statement')),
			isHttpCall(span) && span.host && section('URL', el('p', { class: 'mono' }, longText(span.host)), copyButton(span.host, 'the URL')),
			!statement && !isHttpCall(span) && span.name.length > 160 && section('Name', longText(span.name)),
			(span.stack ?? []).length > 0 && section('Stack, innermost first', stackList(span.stack ?? [])),
			fieldSection('Headers sent', span.sent_headers),
			fieldSection('Headers received', span.received_headers),
			this.otherRequest(node),
		];
	}

	/* Of a request within a trace. */
	private otherRequest(node: number): Child {
		const { model } = this.state;
		const part = model.parts[model.part[node] ?? 0];
		if (part?.first !== node || !model.isTrace) {
			return null;
		}
		const { shift_ms: shift } = part.details;
		return section('Request', [
			facts([
				['Application', part.row.application],
				['Status', part.row.status > 0 && String(part.row.status)],
				['Clock', shift !== undefined && shift !== 0 && `moved by ${duration(shift)}`],
				['Verdict', part.row.verdict],
			]),
			this.links && el('p', {}, this.links.request(part.row.id, 'Open this request alone')),
		]);
	}

	private ofMany(choice: Choice): Child {
		const { model } = this.state;
		const { nodes } = choice;
		const took = Float64Array.from(nodes, (node) => (model.end[node] ?? 0) - (model.start[node] ?? 0)).sort();
		const total = took.reduce((sum, each) => sum + each, 0);
		const held = nodes.reduce((sum, node) => sum + (model.held[node] ?? 0), 0);
		const first = model.spans[nodes[0] ?? 0];
		if (!first) {
			return null;
		}
		const statement = first.statement ?? first.query;
		const failed = nodes.filter((node) => model.isFailed[node]).length;
		return [
			facts([
				['Together', `${duration(total)} (${share(total / Math.max(1, model.duration))} of all)`],
				['Itself', duration(nodes.reduce((sum, node) => sum + (model.self[node] ?? 0), 0))],
				['Held all up for', held > 0 && duration(held)],
				['Each', `${duration(took[0])} to ${duration(took.at(-1))}, median ${duration(took[took.length >> 1])}`],
				['Failed', failed > 0 && el('span', { class: 'bad' }, count(failed))],
				['Database', (first.database_name ?? first.database) && longText([first.database_server, first.database_name ?? first.database].filter(Boolean).join(' / '), undefined, 300)],
				['Callers', callers(model, nodes)],
			]),
			statement && section('SQL', sqlElement(statement), copyButton(statement, 'the SQL')),
			first.statement && this.links && el('p', { class: 'small' }, this.links.statement(first.statement, 'Requests that run this statement')),
			(first.stack ?? []).length > 0 && section('Stack of the first, innermost first', stackList(first.stack ?? [])),
			section('The longest', this.longest(nodes)),
		];
	}

	private longest(nodes: readonly number[]): Child {
		const { model } = this.state;
		const tookOf = (node: number) => (model.end[node] ?? 0) - (model.start[node] ?? 0);
		const sorted = [...nodes].sort((one, other) => tookOf(other) - tookOf(one) || one - other).slice(0, LISTED);
		const textOf = (node: number) => model.spans[node]?.query ?? titleOf(model, node);
		// What all of them are says nothing of one.
		const isSame = new Set(sorted.map(textOf)).size === 1;
		const item = (node: number) =>
			el(
				'li',
				{},
				el('button', { type: 'button', class: 'link', on: { click: () => void this.state.reveal(node, String(node)) } }, duration(tookOf(node))),
				' ',
				el('span', { class: 'muted' }, `from ${duration(model.start[node])} `),
				!isSame && el('span', { class: 'mono' }, shortened(textOf(node), 140)),
			);
		return [el('ol', { class: isSame ? 'longest is-same' : 'longest' }, sorted.map(item)), nodes.length > LISTED && el('p', { class: 'muted small' }, `and ${plural(nodes.length - LISTED, 'shorter one')}`)];
	}
}

function spanName(span: Span): string {
	return [span.component, span.name].filter(Boolean).join('  ');
}

/* The functions that they are called in, by how often. */
export function callerCounts(model: Model, nodes: readonly number[]): { readonly name: string; readonly node: number; readonly count: number }[] {
	const counts = new Map<string, { name: string; node: number; count: number }>();
	for (const node of nodes) {
		const caller = codeAbove(model, node);
		if (caller >= 0) {
			const name = titleOf(model, caller);
			const known = counts.get(name);
			if (known) {
				known.count++;
			} else {
				counts.set(name, { name, node: caller, count: 1 });
			}
		}
	}
	return [...counts.values()].sort((one, other) => other.count - one.count);
}

function callers(model: Model, nodes: readonly number[]): string {
	const list = callerCounts(model, nodes);
	const shown = list.slice(0, 4).map((each) => (list.length > 1 ? `${shortened(each.name, 80)} (${count(each.count)})` : shortened(each.name, 80)));
	return shown.join(', ') + (list.length > 4 ? ` and ${list.length - 4} more` : '');
}
