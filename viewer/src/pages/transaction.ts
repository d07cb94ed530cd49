/* One transaction: how long it takes, where the time goes, and requests that show it. */
import { api } from '../api/services';
import type { Bucket, CalledHost, Curve, FailureGroup, Mark, Profile, ProfileSums, Statement, Top, TopFigures, TopRow } from '../api/types';
import { here, remember, type Address } from '../state/address';
import { heldRows, heldSort } from '../state/held';
import { el, replace, shortened, type Child } from '../ui/dom';
import { apdexLevel, errorLevel, figures } from '../ui/figures';
import { bytes, count, duration, perMinute, plural, score, share, shortCount } from '../ui/format';
import { histogram } from '../ui/histogram';
import { icicle } from '../ui/icicle';
import { lines } from '../ui/lines';
import { pageHref, pageLink, requestLink, term, transactionLink } from '../ui/link';
import type { Page } from '../ui/page';
import { Panel, shared } from '../ui/panel';
import { stepsOf } from '../ui/series';
import { emptyState } from '../ui/states';
import { table, type Column } from '../ui/table';
import { errorColumn, percentileColumns, requestColumns, timeColumns } from './columns';
import { failureCell } from './errors';
import { hostCell } from './external';
import { markList, marksOf } from './marks';
import { findingsPanel, isEstimate } from './overview';
import { openStatement, statementCell, statementKey } from './queries';
import { ofAllHosts } from './of_host';
import { exactly, narrowedBy, scopeOf, stepFor } from './scope';

/* So many have a row of their own. */
const APPLICATIONS = 100;
const ROWS = 5;
const SAMPLE = 240;

/* Finds the requests of the transaction that the page shows, of those that its query is for. */
function transactionQuery(address: Address, txn: string, ...further: readonly string[]): string {
	return [term('txn', txn), address.q && `(${address.q})`, ...further].filter(Boolean).join(' ');
}

/* Each application that has a transaction of this name. */
function applicationTable(txn: string, rows: readonly TopRow[]): Child {
	const columns: Column<TopRow>[] = [
		{ key: 'application', title: 'Application', isMain: true, by: (row) => row.application, cell: (row) => transactionLink(row.application, txn, row.application) },
		...timeColumns<TopRow>('requests'),
		{ key: 'requests', title: 'Calls', align: 'right', by: (row) => row.requests, cell: (row) => count(row.requests) },
		...percentileColumns<TopRow>(),
		errorColumn<TopRow>(),
	];
	return table({ caption: 'Applications', columns, rows, ...heldSort('time', 'applications') });
}

/* Whose figures they are, where the address does not say it. */
function whose(top: Top): string {
	const { transactions, more } = top;
	return transactions.length === 1
		? `Of ${shortened(transactions[0]?.application ?? '', 200)}, the only application with a transaction of this name in this time.`
		: `Of ${more ? 'more than ' : ''}${plural(transactions.length, 'application')} with a transaction of this name, taken together:`;
}

function headLinks(address: Address, txn: string, slowest: string | null, app: string): Child {
	return el(
		'p',
		{ class: 'row' },
		slowest && requestLink(slowest, 'The slowest request'),
		slowest && pageLink('compare', { what: 'typical', a: slowest }, {}, 'The slowest against the typical one'),
		pageLink('search', {}, { q: transactionQuery(address, txn), app }, 'All requests'),
		pageLink('search', {}, { q: transactionQuery(address, txn, 'is:failed'), app }, 'Failed ones'),
		address.q !== '' && el('a', { href: pageHref('transaction', address.own) }, 'without the filter'),
	);
}

function head(address: Address, txn: string, top: Top): Child {
	const rows = top.transactions;
	if (!rows[0]) {
		return emptyState('This transaction was not seen in this time.', 'Take a longer time.');
	}
	const isOne = rows.length === 1;
	const all: TopFigures = isOne ? rows[0] : top.total;
	return [
		address.app === '' && el('p', { class: 'muted whose' }, whose(top)),
		figures([
			{ name: 'Calls', value: count(all.requests) },
			{ name: 'Rate', value: `${isEstimate(all) ? '~ ' : ''}${perMinute(all.calls_per_minute)}` },
			{ name: 'Share of all time', value: share(all.time_share) },
			{ name: 'p50', value: duration(all.p50_ms) },
			{ name: 'p95', value: duration(all.p95_ms) },
			{ name: 'p99', value: duration(all.p99_ms) },
			{ name: 'Errors', value: share(all.error_share), className: errorLevel(all.error_share) },
			{ name: 'Apdex', value: score(all.apdex), className: apdexLevel(all.apdex) },
			{ name: 'Queries', value: shortCount(all.queries_per_request), help: 'Statements per call' },
			{ name: 'CPU', value: duration(all.cpu_ms), help: 'Per call' },
			{ name: 'Memory', value: bytes(all.memory_bytes), help: 'The largest peak' },
		]),
		headLinks(address, txn, all.slowest, isOne ? rows[0].application : address.app),
		!isOne && applicationTable(txn, rows),
	];
}

function bucketHref(address: Address, txn: string): (bucket: Bucket) => string {
	return (bucket) =>
		pageHref('search', { order: 'slowest' }, { q: transactionQuery(address, txn, `duration:>=${bucket.from_ms}ms duration:<${bucket.to_ms}ms`) });
}

const LAYER_LINES = [
	{ name: 'PHP', colour: '--layer-code', of: (sums: ProfileSums) => sums.layers.code - sums.waiting_ms },
	{ name: 'database', colour: '--layer-database', of: (sums: ProfileSums) => sums.layers.database },
	{ name: 'cache', colour: '--layer-cache', of: (sums: ProfileSums) => sums.layers.cache },
	{ name: 'HTTP', colour: '--layer-http', of: (sums: ProfileSums) => sums.layers.http },
	{ name: 'other calls', colour: '--layer-other', of: (sums: ProfileSums) => sums.layers.other },
	{ name: 'waiting', colour: '--layer-waiting', of: (sums: ProfileSums) => sums.waiting_ms },
];

/* In so many parts of the range the interface looks for requests. */
const PARTS = 24;

function layersPart(profile: Profile): Child {
	const { from_ms: from, to_ms: to } = profile.range;
	const steps = stepsOf(profile.range, Math.max(1, Math.ceil((to + 1 - from) / PARTS)), profile.points, from);
	const used = LAYER_LINES.filter((line) => line.of(profile) > 0);
	return [
		el(
			'p',
			{ class: 'layer-sums row' },
			used.map((line) =>
				el(
					'span',
					{ style: { '--key': `var(${line.colour})` } },
					el('i', { class: 'key' }),
					`${line.name} `,
					el('b', {}, duration(line.of(profile) / profile.requests)),
					el('span', { class: 'muted' }, ` ${share(line.of(profile) / Math.max(1, profile.duration_ms))}`),
				),
			),
		),
		lines({
			label: 'Time per request by what took it',
			times: steps.times,
			step: steps.step,
			range: steps.range,
			height: 170,
			format: duration,
			lines: used.map((line) => ({
				name: line.name,
				colour: line.colour,
				stacked: true,
				values: steps.values((point) => line.of(point) / point.requests),
			})),
		}),
		el('p', { class: 'muted small' }, `The mean of ${plural(profile.requests, 'stored request')} from all over this time.`),
	];
}

function curves(curve: Curve, marks: readonly Mark[]): Child {
	const steps = stepsOf(curve.range, curve.step_ms, curve.points);
	const common = { times: steps.times, step: curve.step_ms, range: steps.range, marks, height: 140 };
	return el(
		'div',
		{ class: 'charts charts-3' },
		lines({
			...common,
			label: 'Durations',
			format: duration,
			lines: [
				{ name: 'p50', values: steps.values((point) => point.p50_ms), colour: '--line-1' },
				{ name: 'p95', values: steps.values((point) => point.p95_ms), colour: '--line-2' },
				{ name: 'p99', values: steps.values((point) => point.p99_ms), colour: '--line-3' },
			],
		}),
		lines({
			...common,
			label: 'Requests per minute',
			format: shortCount,
			lines: [{ name: 'Recorded requests/min', values: steps.rates(), colour: '--line-1' }],
		}),
		lines({
			...common,
			label: 'Share of failed requests',
			format: share,
			least: 0.01,
			most: 1,
			lines: [{ name: 'Errors', values: steps.values((point) => (point.count > 0 ? point.failed / point.count : null)), colour: '--bad' }],
		}),
	);
}

interface Called {
	readonly name: string;
	count: number;
	self_ms: number;
}

/* Functions by their own time, wherever they were called from. */
function functionsOf(profile: Profile): readonly Called[] {
	const sums = new Map<string, Called>();
	for (const row of profile.rows.filter((each) => each.layer === 'code')) {
		const sum = sums.get(row.name) ?? { name: row.name, count: 0, self_ms: 0 };
		sum.count += row.count;
		sum.self_ms += row.self_ms;
		sums.set(row.name, sum);
	}
	return [...sums.values()].sort((one, other) => other.self_ms - one.self_ms).slice(0, 2 * ROWS);
}

function functionTable(profile: Profile): Child {
	const columns: Column<Called>[] = [
		{ key: 'name', title: 'Function', isMain: true, cell: (row) => el('span', { class: 'cut mono', title: shortened(row.name, 1000) }, shortened(row.name, 200)) },
		{ key: 'calls', title: 'Calls per request', align: 'right', cell: (row) => shortCount(row.count / profile.requests) },
		{ key: 'self', title: 'Own time per request', align: 'right', cell: (row) => duration(row.self_ms / profile.requests) },
		{ key: 'share', title: 'Share', align: 'right', cell: (row) => share(row.self_ms / Math.max(1, profile.duration_ms)) },
	];
	return table({ caption: 'Functions', columns, rows: functionsOf(profile) });
}

function statementTable(rows: readonly Statement[], requests: number): Child {
	const columns: Column<Statement>[] = [
		{ key: 'statement', title: 'Statement', isMain: true, cell: statementCell },
		{ key: 'count', title: 'Per call', align: 'right', cell: (row) => shortCount(row.count / Math.max(1, requests)) },
		{ key: 'mean', title: 'Mean', align: 'right', cell: (row) => duration(row.mean_ms) },
		{ key: 'total', title: 'In all', align: 'right', cell: (row) => duration(row.total_ms) },
		{ key: 'example', title: 'Example', cell: (row) => requestLink(row.example, 'open') },
	];
	return table({ caption: 'Statements', columns, rows, open: openStatement, held: heldRows(statementKey) });
}

function hostTable(rows: readonly CalledHost[]): Child {
	const columns: Column<CalledHost>[] = [
		{ key: 'host', title: 'Host', isMain: true, cell: hostCell },
		{ key: 'count', title: 'Calls', align: 'right', cell: (row) => shortCount(row.count) },
		{ key: 'p95', title: 'p95', align: 'right', cell: (row) => duration(row.p95_ms) },
		{ key: 'errors', title: 'Errors', align: 'right', cell: (row) => el('span', { class: errorLevel(row.error_share) }, share(row.error_share)) },
		{ key: 'example', title: 'Example', cell: (row) => requestLink(row.example, 'open') },
	];
	return table({ caption: 'External hosts', columns, rows });
}

function failureTable(rows: readonly FailureGroup[]): Child {
	const columns: Column<FailureGroup>[] = [
		{ key: 'error', title: 'Error', isMain: true, cell: failureCell },
		{ key: 'count', title: 'Times', align: 'right', cell: (row) => shortCount(row.count) },
		{ key: 'example', title: 'Example', cell: (row) => requestLink(row.example, 'open') },
	];
	return table({ caption: 'Errors', columns, rows });
}

class TransactionPage implements Page {
	readonly element = el('div', { class: 'page' });
	private readonly parts: readonly HTMLElement[];
	private readonly heading = el('div', { class: 'page-head' });
	private readonly head = new Panel('', { what: 'The transaction', className: 'flat' });
	private readonly curves = new Panel('Over time');
	private readonly durations = new Panel('How long it takes', { what: 'The durations' });
	private readonly layers = new Panel('Where the time goes');
	private readonly findings = findingsPanel('What would gain most');
	private readonly statements = new Panel('Statements');
	private readonly functions = new Panel('Functions by their own time', { what: 'The functions' });
	private readonly hosts = new Panel('External hosts');
	private readonly errors = new Panel('Errors');
	private readonly flame = new Panel('Flame graph of all');
	private readonly slowest = new Panel('Slowest requests');

	constructor() {
		this.parts = [
			this.heading,
			...[this.head, this.findings.panel, this.curves].map((panel) => panel.element),
			el('div', { class: 'columns columns-2' }, this.durations.element, this.layers.element),
			this.flame.element,
			el('div', { class: 'columns columns-2' }, this.statements.element, this.functions.element, this.hosts.element, this.errors.element),
			this.slowest.element,
		];
	}

	title(address: Address): string {
		return shortened(address.own.txn ?? 'Transaction', 200);
	}

	show(address: Address): void {
		const txn = address.own.txn;
		if (!txn) {
			replace(this.element, emptyState('The address names no transaction.', pageLink('transactions', {}, {}, 'All transactions')));
			return;
		}
		if (this.heading.parentNode !== this.element) {
			replace(this.element, this.parts);
		}
		const narrowed = { ...narrowedBy(address), txn: exactly(txn) };
		replace(
			this.heading,
			el('h1', {}, shortened(txn, 1000)),
			address.app && el('span', { class: 'muted' }, address.app),
		);
		void this.head.fill(async (signal) => head(address, txn, await api.top({ ...narrowed, limit: APPLICATIONS }, signal)));
		this.findings.show(address, txn);
		void this.curves.fill(async (signal) => {
			const curve = api.curve({ ...narrowedBy(address), txn, step: stepFor(address, 60) }, signal);
			const marks = await marksOf(address, signal);
			return [curves(await curve, marks), markList(marks, address)];
		});
		void this.durations.fill(async (signal) => {
			const found = await api.durations(narrowed, signal);
			return found.buckets.length === 0
				? emptyState('No duration in this time.')
				: [
						histogram({ buckets: found.buckets, href: bucketHref(address, txn), marks: [['p50', found.p50_ms], ['p95', found.p95_ms], ['p99', found.p99_ms]] }),
						el('p', { class: 'muted small' }, 'A bar opens its requests.'),
					];
		});
		this.showProfile(narrowed);
		this.showGroups(address, txn);
	}

	private showProfile(narrowed: Parameters<typeof api.profile>[0]): void {
		const asked = shared(() => api.profile({ ...narrowed, limit: SAMPLE }));
		const part = (panel: Panel, draw: (profile: Profile) => Child) =>
			void panel.fill(async () => {
				const profile = await asked();
				return profile.requests === 0
					? emptyState('No request of this time is stored with its calls.', 'Take a shorter or a later time.')
					: draw(profile);
			});
		part(this.layers, layersPart);
		part(this.functions, functionTable);
		part(this.flame, (profile) => [
			icicle(profile.rows, profile.requests, { key: here().own.frame ?? '', onLook: (frame) => remember({ own: { frame } }) }),
			el('p', { class: 'muted small' }, `Calls of ${plural(profile.requests, 'stored request')} from all over this time, added up. A box opens what is below it.`),
		]);
	}

	private showGroups(address: Address, txn: string): void {
		const parameters = { ...scopeOf(address), txn: exactly(txn), limit: ROWS };
		const all = (page: 'queries' | 'errors' | 'external', more: boolean) =>
			more && el('p', {}, pageLink(page, { txn }, {}, 'All of them'));
		const note = (page: 'queries' | 'external') => ofAllHosts(address, pageLink(page, { txn }, {}, 'Those of this host'));
		void this.statements.fill(async (signal) => {
			const [found, top] = await Promise.all([api.queries(parameters, signal), api.top({ ...scopeOf(address), txn: exactly(txn), limit: 1 }, signal)]);
			return found.statements.length === 0
				? emptyState('It executes no statements.')
				: [note('queries'), statementTable(found.statements, top.total.recorded), all('queries', found.more)];
		});
		void this.hosts.fill(async (signal) => {
			const found = await api.calls(parameters, signal);
			return found.hosts.length === 0 ? emptyState('It calls no other host.') : [note('external'), hostTable(found.hosts), all('external', found.more)];
		});
		void this.errors.fill(async (signal) => {
			const found = await api.errors(parameters, signal);
			return found.errors.length === 0 ? emptyState('No error and no exception.') : [ofAllHosts(address), failureTable(found.errors), all('errors', found.more)];
		});
		void this.slowest.fill(async (signal) => {
			const q = transactionQuery(address, txn, address.host && term('host', address.host));
			const found = await api.requests({ ...scopeOf(address), q, order: 'slowest', limit: 2 * ROWS }, signal);
			return found.requests.length === 0
				? emptyState('None of its requests is stored any more.', 'Take a later time.')
				: table({ caption: 'Slowest requests', columns: requestColumns({ without: ['name', 'application'] }), rows: found.requests, ...heldSort() });
		});
	}

	end(): void {
		for (const panel of [this.head, this.curves, this.durations, this.layers, this.findings.panel, this.statements, this.functions, this.hosts, this.errors, this.flame, this.slowest]) {
			panel.end();
		}
	}
}

export function transactionPage(): Page {
	return new TransactionPage();
}
