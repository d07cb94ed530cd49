/*
 * Tables: a caption for those who do not see them, columns that sort, and rows added as they are
 * needed. On narrow pages a row becomes a block in which each cell names its column.
 */
import { append, el, replace, type Child } from './dom';
import { plural } from './format';

export interface Column<Row> {
	readonly key: string;
	readonly title: string;
	/* What it means, on hover. */
	readonly help?: string;
	readonly cell: (row: Row) => Child;
	/* What it is sorted by; the largest first unless it is a text. Without it the column does not sort. */
	readonly by?: (row: Row) => number | string | null;
	/* Numbers stand to the right. */
	readonly align?: 'right';
	/* The cell that takes the room that is left; it stands first in blocks. */
	readonly isMain?: boolean;
	readonly className?: string;
}

export interface Sort {
	readonly key: string;
	readonly isReversed: boolean;
}

export interface TableOptions<Row> {
	readonly caption: string;
	readonly columns: readonly Column<Row>[];
	readonly rows: readonly Row[];
	/* As sortText() writes it; the rows stay in their order where it is empty. */
	readonly sort?: string;
	readonly onSort?: (sort: string) => void;
	/* What a row has below it once it is opened. */
	readonly open?: (row: Row) => Child;
	/* Which rows are opened, by a key of each, and what is told when that changes. */
	readonly held?: {
		readonly keyOf: (row: Row) => string;
		readonly opened: ReadonlySet<string>;
		readonly onOpened: (keys: ReadonlySet<string>) => void;
	};
}

const AT_ONCE = 100;

export function sortText(sort: Sort): string {
	return (sort.isReversed ? '-' : '') + sort.key;
}

export function parseSort(text: string): Sort {
	return { key: text.replace(/^-/, ''), isReversed: text.startsWith('-') };
}

function compare(one: number | string | null, other: number | string | null): number {
	if (one === null || other === null) {
		return one === other ? 0 : one === null ? 1 : -1;
	}
	return typeof one === 'string' || typeof other === 'string'
		? String(one).localeCompare(String(other), 'en', { numeric: true })
		: other - one;
}

function sorted<Row>({ rows, columns }: TableOptions<Row>, sort: Sort): readonly Row[] {
	const by = columns.find((column) => column.key === sort.key)?.by;
	if (!by) {
		return rows;
	}
	const direction = sort.isReversed ? -1 : 1;
	return [...rows].sort((one, other) => {
		const [a, b] = [by(one), by(other)];
		return compare(a, b) * (a === null || b === null ? 1 : direction);
	});
}

class Table<Row> {
	readonly element: HTMLElement;
	private readonly body = el('tbody');
	private readonly head = el('tr');
	private readonly choice = el('div', { class: 'table-choice' });
	private readonly foot = el('div', { class: 'table-foot' });
	private readonly moreButton = el('button', { type: 'button', on: { click: () => this.showMore() } });
	private shown = 0;
	private rows: readonly Row[];
	private sort: Sort;
	private readonly opened: Set<string>;

	constructor(private readonly options: TableOptions<Row>) {
		this.sort = parseSort(options.sort ?? '');
		this.opened = new Set(options.held?.opened);
		this.rows = sorted(options, this.sort);
		this.element = el(
			'div',
			{ class: 'table' },
			this.choice,
			el('table', {}, el('caption', { class: 'unseen' }, options.caption), el('thead', {}, this.head), this.body),
			this.foot,
		);
		this.draw();
	}

	private draw(): void {
		replace(
			this.head,
			this.options.open && el('th', { scope: 'col', class: 'opener-cell' }, el('span', { class: 'unseen' }, 'Details')),
			this.options.columns.map((column) => this.heading(column)),
		);
		this.drawChoice();
		replace(this.body);
		this.shown = 0;
		this.more();
	}

	/* Where there is no room for headings. */
	private drawChoice(): void {
		const sortable = this.options.columns.filter((column) => column.by);
		const select: HTMLSelectElement = el(
			'select',
			{ 'aria-label': 'Sort by', on: { change: () => this.sortBy(select.value) } },
			!sortable.some((column) => column.key === this.sort.key) && el('option', { value: '' }, '–'),
			sortable.map((column) => el('option', { value: column.key }, column.title)),
		);
		select.value = this.sort.key;
		replace(this.choice, sortable.length > 0 && ['Sort by ', select]);
	}

	private heading(column: Column<Row>): HTMLElement {
		const isSorted = this.sort.key === column.key;
		// Texts sort from A, numbers from the largest; reversed is the other way round.
		const isText = typeof (this.rows[0] && column.by?.(this.rows[0])) === 'string';
		const isUp = isText !== this.sort.isReversed;
		const sort = column.by && {
			'aria-sort': isSorted ? (isUp ? 'ascending' : 'descending') : 'none',
		};
		const label = column.by
			? el('button', { type: 'button', class: 'heading', on: { click: () => this.sortBy(column.key) } }, column.title, isSorted && el('span', { 'aria-hidden': 'true' }, isUp ? ' ▴' : ' ▾'))
			: column.title;
		return el('th', { scope: 'col', class: this.classOf(column), title: column.help, ...sort }, label);
	}

	private classOf(column: Column<Row>): string {
		return [column.align === 'right' && 'number', column.isMain && 'main-cell', column.className].filter(Boolean).join(' ');
	}

	private sortBy(key: string): void {
		this.sort = { key, isReversed: this.sort.key === key && !this.sort.isReversed };
		this.rows = sorted(this.options, this.sort);
		this.draw();
		const buttons = this.head.querySelectorAll<HTMLElement>('.heading');
		const sortable = this.options.columns.filter((column) => column.by);
		buttons[sortable.findIndex((column) => column.key === key)]?.focus();
		this.options.onSort?.(sortText(this.sort));
	}

	private rowElement(row: Row): HTMLElement {
		const { columns, open, held } = this.options;
		const element = el('tr', { 'data-row': true });
		append(
			element,
			open && el('td', { class: 'opener-cell' }, this.opener(element, () => open(row), held?.keyOf(row))),
			columns.map((column) => el('td', { class: this.classOf(column), 'data-title': column.title }, column.cell(row))),
		);
		return element;
	}

	private opener(row: HTMLElement, content: () => Child, key: string | undefined): HTMLElement {
		let below: HTMLElement | undefined;
		const turn = () => {
			if (below) {
				below.remove();
				below = undefined;
			} else {
				below = el('tr', { class: 'details-row' }, el('td', { colspan: this.options.columns.length + 1 }, content()));
				row.after(below);
			}
			button.setAttribute('aria-expanded', String(below !== undefined));
		};
		const turnAndTell = () => {
			turn();
			if (key !== undefined) {
				this.opened[below ? 'add' : 'delete'](key);
				this.options.held?.onOpened(this.opened);
			}
		};
		const button: HTMLButtonElement = el(
			'button',
			{ type: 'button', class: 'opener', 'aria-expanded': 'false', 'aria-label': 'Details', on: { click: turnAndTell } },
			'▸',
		);
		if (key !== undefined && this.opened.has(key)) {
			// What is below stands behind the row once that has its place.
			queueMicrotask(turn);
		}
		return button;
	}

	/* Above the others, whose elements stay as they are; the last ones go where there are more than `most`. */
	prepend(rows: readonly Row[], most: number): void {
		this.body.prepend(...rows.map((row) => this.rowElement(row)));
		while (this.body.childElementCount > most) {
			this.body.lastElementChild?.remove();
		}
	}

	/* Whoever had the button loses it with the last rows: they go on at the first of these. */
	private showMore(): void {
		const first = this.shown;
		this.more();
		if (this.shown === this.rows.length) {
			this.body.querySelectorAll(':scope > [data-row]')[first]?.querySelector<HTMLElement>('a, button')?.focus({ preventScroll: true });
		}
	}

	private more(): void {
		for (const row of this.rows.slice(this.shown, this.shown + AT_ONCE)) {
			append(this.body, this.rowElement(row));
		}
		this.shown = Math.min(this.rows.length, this.shown + AT_ONCE);
		const left = this.rows.length - this.shown;
		this.moreButton.textContent = `Show more: ${plural(left, 'row')} left`;
		if (left === 0) {
			this.moreButton.remove();
		} else if (!this.moreButton.isConnected) {
			replace(this.foot, this.moreButton);
		}
	}
}

export function table<Row>(options: TableOptions<Row>): HTMLElement {
	return new Table(options).element;
}

export interface GrowingTable<Row> {
	readonly element: HTMLElement;
	/* Puts them above the others. */
	readonly prepend: (rows: readonly Row[]) => void;
}

/* A table without an order of its own, in which rows come one after the other. */
export function growingTable<Row>({ most, ...options }: Omit<TableOptions<Row>, 'rows' | 'sort'> & { readonly most: number }): GrowingTable<Row> {
	const made = new Table({ ...options, rows: [] });
	return { element: made.element, prepend: (rows) => made.prepend(rows, most) };
}
