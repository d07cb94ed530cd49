/* The statements of the request, each with how often and where it ran. */
import { el, shortened, type Child } from '../ui/dom';
import { count, duration, share } from '../ui/format';
import { callerCounts } from './details';
import type { ViewState } from './state';
import { statementGroups, type StatementGroup } from './statements';
import type { Links } from './surroundings';
import { copyButton, facts, section, sqlElement } from './texts';

const AT_ONCE = 60;

interface Row {
	readonly group: StatementGroup;
	readonly caller: string;
}

function numberCell(title: string, value: Child): HTMLElement {
	return el('td', { class: 'number', 'data-title': title }, value);
}

export class SqlTab {
	readonly element: HTMLElement;
	private readonly body = el('tbody');
	private readonly more = el('div', { class: 'table-foot' });
	private readonly groups: readonly StatementGroup[];
	private readonly sum: number;
	private shown = 0;

	constructor(
		private readonly state: ViewState,
		private readonly links: Links | undefined,
		private readonly onShow: () => void,
	) {
		this.groups = statementGroups(state.model);
		this.sum = this.groups.reduce((sum, group) => sum + group.total, 0);
		const calls = this.groups.reduce((sum, group) => sum + group.nodes.length, 0);
		if (this.groups.length === 0) {
			this.element = el('p', { class: 'muted' }, 'This request ran no statement that was recorded.');
			return;
		}
		this.element = el(
			'div',
			{ class: 'table sql-table' },
			el('p', { class: 'muted small' }, `${count(calls)} executions of ${count(this.groups.length)} statements, ${duration(this.sum)} in all: ${share(this.sum / Math.max(1, state.model.duration))} of the whole time.`),
			el(
				'table',
				{},
				el('caption', { class: 'unseen' }, 'Statements, what took longest first'),
				el('thead', {}, el('tr', {}, ['Statement', 'Calls', 'Together', 'Each', 'Longest', ''].map((title, i) => el('th', { scope: 'col', class: i > 0 && i < 5 ? 'number' : '' }, title || el('span', { class: 'unseen' }, 'Show'))))),
				this.body,
			),
			this.more,
		);
		this.add();
	}

	private add(): void {
		for (const group of this.groups.slice(this.shown, this.shown + AT_ONCE)) {
			this.body.append(...this.rows({ group, caller: callerCounts(this.state.model, group.nodes)[0]?.name ?? '' }));
		}
		this.shown += AT_ONCE;
		const left = this.groups.length - this.shown;
		this.more.replaceChildren();
		if (left > 0) {
			this.more.append(el('button', { type: 'button', on: { click: () => this.add() } }, `Show more: ${count(left)} left`));
		}
	}

	private rows({ group, caller }: Row): readonly HTMLElement[] {
		const below = el('tr', { class: 'details-row', hidden: true });
		const toggle: HTMLButtonElement = el(
			'button',
			{ type: 'button', class: 'link statement-button', 'aria-expanded': 'false', on: { click: () => this.toggle(toggle, below, group) } },
			el('span', { class: 'mono cut' }, shortened(group.statement, 300)),
		);
		const row = el(
			'tr',
			{ 'data-row': true },
			el('td', { class: 'main-cell', 'data-title': 'Statement' }, toggle, caller && el('span', { class: 'muted small cut' }, `under ${shortened(caller, 120)}`)),
			numberCell('Calls', el('b', {}, count(group.nodes.length))),
			numberCell('Together', [duration(group.total), el('span', { class: 'bar', style: { '--part': `${(group.total / Math.max(1, this.sum)) * 100}%` } })]),
			numberCell('Each', duration(group.total / group.nodes.length)),
			numberCell('Longest', duration(group.longest)),
			el('td', {}, el('button', { type: 'button', class: 'plain small', on: { click: () => this.show(group) } }, 'Show'), group.failed > 0 && el('span', { class: 'bad small' }, ` ${count(group.failed)} failed`)),
		);
		return [row, below];
	}

	private toggle(button: HTMLButtonElement, below: HTMLElement, group: StatementGroup): void {
		const isOpen = button.getAttribute('aria-expanded') === 'true';
		button.setAttribute('aria-expanded', String(!isOpen));
		below.hidden = isOpen;
		if (!isOpen && below.childElementCount === 0) {
			const callers = callerCounts(this.state.model, group.nodes);
			below.append(
				el(
					'td',
					{ colspan: 6 },
					section('SQL', sqlElement(group.statement) as Child, copyButton(group.statement, 'the SQL')) as HTMLElement,
					facts([
						['Database', group.database],
						['Callers', callers.slice(0, 12).map((each) => el('div', {}, `${shortened(each.name, 200)} (${count(each.count)})`))],
					]),
					this.links && el('p', { class: 'small' }, this.links.statement(group.statement, 'Requests that run this statement')),
				),
			);
		}
	}

	private show(group: StatementGroup): void {
		this.state.mark(`statement ${group.nodes[0] ?? 0}`, group.nodes);
		this.state.choose(this.state.tree.visible[this.state.tree.rowOf[group.nodes[0] ?? 0] ?? 0]);
		this.onShow();
	}
}
