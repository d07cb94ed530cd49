/* Statements, grouped, with where they come from. */
import { api } from '../api/services';
import type { Statement } from '../api/types';
import { shortKey } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { count, duration, shortCount } from '../ui/format';
import { pageHref, pageLink, requestLink, term, transactionLink } from '../ui/link';
import { emptyState } from '../ui/states';
import type { Column } from '../ui/table';
import { applicationColumn, curveColumn, errorColumn, partList, percentileColumns, timeColumns } from './columns';
import { groupCurve, groupPage, type GroupAnswer } from './groups';

/* That many words in a row a query may have. */
const MOST_WORDS = 60;
const LONGEST_SHOWN = 20000;

export function statementQuery(statement: string): string {
	const words = statement.split(/[^\p{L}\p{N}_]+/u).filter(Boolean).slice(0, MOST_WORDS);
	return words.length > 0 ? term('sql', words.join(' ')) : '';
}

/* Tells it from others. */
export function statementKey(row: Statement): string {
	return shortKey(row.application, row.statement, row.component, row.server, row.database);
}

export function statementCell(row: Statement): HTMLElement {
	const place = [row.component, row.database, row.server && `on ${row.server}`].filter(Boolean).join(' ');
	const caller = row.callers[0];
	const where = [caller && (caller.name || 'main script'), row.callers_count > 1 && `and ${row.callers_count - 1} more`].filter(Boolean).join(' ');
	return el(
		'div',
		{},
		el('code', { class: 'statement', title: shortened(row.statement, 2000) }, shortened(row.statement, 300)),
		el('span', { class: 'muted small cut' }, [where && `from ${where}`, place].filter(Boolean).join(' · ')),
	);
}

function columns(answer: GroupAnswer<Statement>, app: string): Column<Statement>[] {
	return [
		{ key: 'statement', title: 'Statement', isMain: true, by: (row) => row.statement, cell: statementCell },
		...(app ? [] : [applicationColumn<Statement>()]),
		...timeColumns<Statement>('statements'),
		{ key: 'total', title: 'In all', align: 'right', by: (row) => row.total_ms, cell: (row) => duration(row.total_ms) },
		{ key: 'count', title: 'Times', align: 'right', by: (row) => row.count, cell: (row) => el('span', { title: count(row.count) }, shortCount(row.count)) },
		{ key: 'mean', title: 'Mean', align: 'right', by: (row) => row.mean_ms, cell: (row) => duration(row.mean_ms) },
		...percentileColumns<Statement>().slice(1, 2),
		{ key: 'longest', title: 'Longest', align: 'right', by: (row) => row.longest_ms, cell: (row) => duration(row.longest_ms) },
		errorColumn<Statement>(),
		curveColumn<Statement>('Time over time', 'total', answer.range, answer.step),
	];
}

/* What is known of a statement, with who executes it. */
export function openStatement(row: Statement, curve?: Child): Child {
	const query = statementQuery(row.statement);
	return el(
		'div',
		{ class: 'stack' },
		el('pre', { class: 'statement-whole', tabindex: 0 }, shortened(row.statement, LONGEST_SHOWN)),
		el(
			'p',
			{ class: 'row' },
			requestLink(row.example, 'The request in which it took longest'),
			query && pageLink('search', {}, { q: query, app: row.application }, 'Requests with it'),
			query && el('a', { href: pageHref('search', { order: 'slowest' }, { q: query, app: row.application }) }, 'The slowest ones'),
		),
		el(
			'div',
			{ class: 'columns' },
			partList('From', row.callers, row.callers_count),
			partList('In', row.transactions, row.transactions_count, (name) => transactionLink(row.application, name)),
		),
		curve,
	);
}

function noStatement(): HTMLElement {
	return emptyState('No statement was executed in this time.', 'Take a longer time. Statements are seen where scripts use PDO, MySQLi and other drivers that the extension records.');
}

export const queriesPage = groupPage<Statement>({
	title: 'Queries',
	what: 'The statements',
	sort: 'time',
	ask: async (parameters, signal) => {
		const answer = await api.queries(parameters, signal);
		return { rows: answer.statements, range: answer.range, step: parameters.step, more: answer.more };
	},
	columns: (answer, address) => columns(answer, address.app),
	open: (row, address) =>
		openStatement(row, groupCurve(address, { kind: 'statement', text: row.statement, app: row.application, shows: 'durations' })),
	keyOf: statementKey,
	ofHost: {
		title: 'Statement',
		layer: 'database',
		name: (name, detail) => detail || name,
		cell: (name) => el('code', { class: 'statement', title: shortened(name, 2000) }, shortened(name, 300)),
		query: statementQuery,
		empty: noStatement,
	},
	empty: noStatement,
});
