/* Pages that list groups: statements, errors, external hosts. Each row opens to where it comes from. */
import { api } from '../api/services';
import type { FigureKind, Range } from '../api/types';
import { here, type Address } from '../state/address';
import { heldRows, heldSort } from '../state/held';
import { el, type Child } from '../ui/dom';
import { duration } from '../ui/format';
import { lines } from '../ui/lines';
import { pageHref } from '../ui/link';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';
import { stepsOf } from '../ui/series';
import { table, type Column } from '../ui/table';
import { marksOf } from './marks';
import { ofAllHosts, ofHost, type SampledOf } from './of_host';
import { exactly, scopeOf, stepFor } from './scope';

const MOST = 300;
const POINTS = 30;

export interface GroupAnswer<Row> {
	readonly rows: readonly Row[];
	readonly range: Range;
	readonly step: number;
	readonly more: boolean;
}

export interface GroupPage<Row> {
	readonly title: string;
	readonly what: string;
	readonly sort: string;
	readonly ask: (parameters: GroupParameters, signal: AbortSignal) => Promise<GroupAnswer<Row>>;
	readonly columns: (answer: GroupAnswer<Row>, address: Address) => readonly Column<Row>[];
	readonly open: (row: Row, address: Address) => Child;
	/* What tells it from others. */
	readonly keyOf: (row: Row) => string;
	/* What can be told of one host; figures are kept over all of them. */
	readonly ofHost?: SampledOf;
	/* Where it cannot, what can be asked instead. */
	readonly insteadOfHost?: () => Child;
	/* Where there is no row. */
	readonly empty: (address: Address) => HTMLElement;
}

export interface GroupParameters {
	readonly from?: string | undefined;
	readonly to?: string | undefined;
	readonly app?: string | undefined;
	readonly txn?: string | undefined;
	readonly limit: number;
	readonly step: number;
}

/* The transaction that the page is narrowed to, and a way out of it. */
function narrowing(address: Address): Child {
	const { txn } = address.own;
	return (
		txn && [
			el('span', {}, 'of the transaction '),
			el('b', { class: 'cut-wide' }, txn),
			' ',
			el('a', { href: pageHref(typeof address.page === 'string' ? address.page : 'overview') }, 'all transactions'),
		]
	);
}

export function groupPage<Row>(page: GroupPage<Row>): () => Page {
	return () => {
		const panel = new Panel('', { what: page.what });
		const head = el('div', { class: 'page-head' });
		const content = async (address: Address, signal: AbortSignal): Promise<Child> => {
			if (address.host && page.ofHost) {
				return ofHost(address, page.ofHost, signal);
			}
			const { txn } = address.own;
			const answer = await page.ask(
				{ ...scopeOf(address), ...(txn ? { txn: exactly(txn) } : {}), limit: MOST, step: stepFor(address, POINTS) },
				signal,
			);
			const note = ofAllHosts(address, page.insteadOfHost?.());
			if (answer.rows.length === 0) {
				return [note, page.empty(address)];
			}
			return [
				note,
				table({
					caption: page.title,
					columns: page.columns(answer, address),
					rows: answer.rows,
					...heldSort(page.sort),
					held: heldRows(page.keyOf),
					open: (row) => page.open(row, here()),
				}),
				answer.more && el('p', { class: 'muted small' }, `These are the first ${MOST}.`),
			];
		};
		return {
			element: el('div', { class: 'page' }, head, panel.element),
			title: () => page.title,
			show: (address) => {
				head.replaceChildren(el('h1', {}, page.title), el('p', { class: 'muted narrowing' }, narrowing(address)));
				void panel.fill((signal) => content(address, signal));
			},
			end: () => panel.end(),
		};
	};
}

interface CurveOptions {
	readonly kind: FigureKind;
	readonly text: string;
	readonly app: string;
	/* How often it happened, or how long it took. */
	readonly shows: 'count' | 'durations';
}

/* How one group went over the time that is shown. */
export function groupCurve(address: Address, options: CurveOptions): HTMLElement {
	const panel = new Panel('', { className: 'flat', what: 'Its curve' });
	void panel.fill(async (signal) => {
		const [curve, marks] = await Promise.all([
			api.curve({ from: address.from, to: address.to, app: options.app, kind: options.kind, text: options.text, step: stepFor(address, 60) }, signal),
			marksOf(address, signal),
		]);
		const steps = stepsOf(curve.range, curve.step_ms, curve.points);
		const counts = { name: 'times/min', values: steps.rates(), colour: '--line-1' };
		const common = { times: steps.times, step: curve.step_ms, range: steps.range, marks };
		return el(
			'div',
			{ class: 'columns' },
			lines({ ...common, label: 'How often', format: (value) => (value === null ? '–' : String(Number(value.toFixed(2)))), lines: [counts] }),
			options.shows === 'durations' &&
				lines({
					...common,
					label: 'How long',
					format: duration,
					lines: [
						{ name: 'p50', values: steps.values((point) => point.p50_ms), colour: '--line-1' },
						{ name: 'p95', values: steps.values((point) => point.p95_ms), colour: '--line-2' },
					],
				}),
		);
	});
	return panel.element;
}
