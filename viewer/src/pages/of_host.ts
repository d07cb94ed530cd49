/*
 * Statements and calls of one host. Their figures are kept over all hosts, but the stored requests know
 * which host they were asked under: what a sample of these did is added up instead.
 */
import { api } from '../api/services';
import type { Layer, Part, Profile } from '../api/types';
import type { Address } from '../state/address';
import { heldRows, heldSort, shortKey } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { count, duration, plural, share, shortCount } from '../ui/format';
import { pageHref } from '../ui/link';
import { emptyState } from '../ui/states';
import { table, type Column } from '../ui/table';
import { partList } from './columns';
import { exactly, scopeOf } from './scope';

const SAMPLE = 500;

interface Sum {
	readonly name: string;
	count: number;
	total_ms: number;
}

export interface Sampled extends Sum {
	readonly callers: Map<string, Sum>;
}

export interface SampledOf {
	readonly title: string;
	readonly layer: Layer;
	/* What calls with this name and detail are counted as. */
	readonly name: (name: string, detail: string) => string;
	readonly cell: (name: string) => Child;
	/* Finds requests with it. */
	readonly query: (name: string) => string;
	readonly empty: () => HTMLElement;
}

/* Calls of the layer, by what they are counted as, those that took longest first. */
export function sampledOf(profile: Profile, of: Pick<SampledOf, 'layer' | 'name'>): readonly Sampled[] {
	const sums = new Map<string, Sampled>();
	for (const row of profile.rows.filter((each) => each.layer === of.layer)) {
		const name = of.name(row.name, row.detail ?? '');
		const sum = sums.get(name) ?? { name, count: 0, total_ms: 0, callers: new Map<string, Sum>() };
		sum.count += row.count;
		sum.total_ms += row.total_ms;
		const from = profile.rows[row.parent]?.name ?? '';
		const caller = sum.callers.get(from) ?? { name: from, count: 0, total_ms: 0 };
		caller.count += row.count;
		caller.total_ms += row.total_ms;
		sum.callers.set(from, caller);
		sums.set(name, sum);
	}
	return [...sums.values()].sort((one, other) => other.total_ms - one.total_ms);
}

function callersOf(row: Sampled): readonly Part[] {
	return [...row.callers.values()].sort((one, other) => other.total_ms - one.total_ms || other.count - one.count);
}

function open(row: Sampled, of: SampledOf): Child {
	const query = of.query(row.name);
	return el(
		'div',
		{ class: 'stack' },
		el('pre', { class: 'statement-whole', tabindex: 0 }, shortened(row.name, 20000)),
		query && el('p', {}, el('a', { href: pageHref('search', { order: 'slowest' }, { q: query }) }, 'Requests of this host with it')),
		partList('From', callersOf(row), row.callers.size),
	);
}

function columns(profile: Profile, of: SampledOf): Column<Sampled>[] {
	const whole = Math.max(1, profile.duration_ms);
	return [
		{ key: 'name', title: of.title, isMain: true, by: (row) => row.name, cell: (row) => of.cell(row.name) },
		{ key: 'time', title: 'Share of time', help: 'Of the time of these requests', align: 'right', by: (row) => row.total_ms, cell: (row) => share(row.total_ms / whole) },
		{ key: 'total', title: 'In all', align: 'right', by: (row) => row.total_ms, cell: (row) => duration(row.total_ms) },
		{ key: 'count', title: 'Times', align: 'right', by: (row) => row.count, cell: (row) => el('span', { title: count(row.count) }, shortCount(row.count)) },
		{ key: 'each', title: 'Per request', align: 'right', by: (row) => row.count, cell: (row) => shortCount(row.count / Math.max(1, profile.requests)) },
		{ key: 'mean', title: 'Mean', align: 'right', by: (row) => row.total_ms / row.count, cell: (row) => duration(row.total_ms / row.count) },
	];
}

/* What stands in the place of figures over all hosts. */
export async function ofHost(address: Address, of: SampledOf, signal: AbortSignal): Promise<Child> {
	const { txn } = address.own;
	const profile = await api.profile({ ...scopeOf(address), ...(txn ? { txn: exactly(txn) } : {}), host: address.host, limit: SAMPLE }, signal);
	const rows = sampledOf(profile, of);
	if (profile.requests === 0) {
		return emptyState('No request of this host is stored in this time.', 'Take a longer time, or all hosts.');
	}
	return [
		el(
			'p',
			{ class: 'muted small' },
			`Of ${profile.more ? 'a sample of ' : ''}${plural(profile.requests, 'stored request')} of this host: figures of all requests are kept over all hosts.`,
		),
		rows.length === 0
			? of.empty()
			: table({ caption: of.title, columns: columns(profile, of), rows, ...heldSort('time'), open: (row) => open(row, of), held: heldRows<Sampled>(({ name }) => shortKey(name)) }),
	];
}

/* Where nothing can be told by host. */
export function ofAllHosts(address: Address, ...further: readonly Child[]): Child {
	return address.host && el('p', { class: 'muted small of-all-hosts' }, 'Of all hosts: figures of these are kept without the host. ', further);
}
