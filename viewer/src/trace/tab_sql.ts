/* The statements of the request, each with how often and where it ran. */
import { heldRows, heldSort, shortKey } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { count, duration, share } from '../ui/format';
import { table, type Column } from '../ui/table';
import { callerCounts } from './details';
import type { ViewState } from './state';
import { statementGroups, type StatementGroup } from './statements';
import type { Surroundings } from './surroundings';
import { copyButton, facts, section, sqlElement } from './texts';

const MOST_CALLERS = 12;

interface Row extends StatementGroup {
	readonly caller: string;
}

/* Of a statement and its database. */
function keyOf(row: Row): string {
	return shortKey(row.statement, row.database);
}

function statementCell(row: Row): Child {
	const where = [row.caller && `under ${shortened(row.caller, 120)}`, row.database].filter(Boolean).join(' · ');
	return [el('code', { class: 'cut', title: shortened(row.statement, 2000) }, shortened(row.statement, 300)), where && el('span', { class: 'muted small cut' }, where)];
}

function columns(sum: number, show: (row: Row) => void): Column<Row>[] {
	const isFailing = (row: Row) => row.failed > 0 && el('span', { class: 'bad small' }, ` ${count(row.failed)} failed`);
	return [
		{ key: 'statement', title: 'Statement', isMain: true, by: (row) => row.statement, cell: statementCell },
		{ key: 'calls', title: 'Calls', align: 'right', by: (row) => row.nodes.length, cell: (row) => [el('b', {}, count(row.nodes.length)), isFailing(row)] },
		{ key: 'total', title: 'Together', align: 'right', by: (row) => row.total, cell: (row) => [duration(row.total), el('span', { class: 'bar', style: { '--part': `${(row.total / Math.max(1, sum)) * 100}%` } })] },
		{ key: 'each', title: 'Each', align: 'right', by: (row) => row.total / row.nodes.length, cell: (row) => duration(row.total / row.nodes.length) },
		{ key: 'longest', title: 'Longest', align: 'right', by: (row) => row.longest, cell: (row) => duration(row.longest) },
		{ key: 'show', title: 'Where', cell: (row) => el('button', { type: 'button', class: 'plain small', on: { click: () => show(row) } }, 'Show') },
	];
}

export function sqlTab(state: ViewState, surroundings: Surroundings, onShow: () => void): Child {
	const { model } = state;
	const { links } = surroundings;
	const rows = statementGroups(model).map((group) => ({ ...group, caller: callerCounts(model, group.nodes)[0]?.name ?? '' }));
	if (rows.length === 0) {
		return el('p', { class: 'muted' }, 'No statement was recorded.');
	}
	const sum = rows.reduce((total, row) => total + row.total, 0);
	const calls = rows.reduce((total, row) => total + row.nodes.length, 0);
	const show = (row: Row) => {
		state.point(`statement ${row.nodes[0] ?? 0}`, row.nodes);
		onShow();
	};
	const open = (row: Row): Child => [
		section('SQL', sqlElement(row.statement), copyButton(row.statement, 'the SQL')),
		facts([
			['Database', row.database],
			[
				'Callers',
				callerCounts(model, row.nodes)
					.slice(0, MOST_CALLERS)
					.map((each) => el('div', {}, `${shortened(each.name, 200)} (${count(each.count)})`)),
			],
		]),
		links && el('p', { class: 'small' }, links.statement(row.statement, 'Requests that run this statement')),
	];
	return [
		el('p', { class: 'muted small' }, `${count(calls)} executions of ${count(rows.length)} statements, ${duration(sum)} in all: ${share(sum / Math.max(1, model.duration))} of the whole time.`),
		table({ caption: 'Statements of the request', columns: columns(sum, show), rows, open, ...heldSort('total', 'sort', surroundings), held: heldRows(keyOf, 'statements', surroundings) }),
	];
}
