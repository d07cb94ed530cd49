/*
 * The rows of a canvas as elements, for those who do not see it: the ones that are drawn, and the
 * chosen one, which the element that holds them names as the active one.
 */
import { el } from '../ui/dom';
import { count, duration } from '../ui/format';
import { LAYERS, type Model } from './model';
import type { Row } from './rows';
import type { ViewState } from './state';

const PATIENCE_MS = 150;

let mirrors = 0;

/* One sentence that holds what a row shows. */
export function rowText(model: Model, row: Row): string {
	const layer = LAYERS[model.layer[row.nodes[0] ?? 0] ?? 0] ?? 'other';
	const many = row.nodes.length > 1 ? `${count(row.nodes.length)} times ` : '';
	const failed = row.isFailed ? ', failed' : row.hasFailed ? ', failed below' : '';
	return row.kind === 'each'
		? `${many}one by one`
		: `${many}${row.label}, ${layer}, ${duration(row.total)}, itself ${duration(row.self)}, from ${duration(row.from)}${failed}`;
}

export class RowMirror {
	readonly element = el('div', { class: 'unseen', role: 'presentation' });
	private readonly name = `rows-${++mirrors}`;
	private chosen = -1;
	private first = 0;
	private last = 0;
	private waiting = 0;

	constructor(private readonly state: ViewState) {}

	/* At once, so that it can be read out. */
	show(chosen: number, owner: HTMLElement): void {
		this.chosen = chosen;
		this.fill();
		if (chosen >= 0) {
			owner.setAttribute('aria-activedescendant', `${this.name}-${chosen}`);
		} else {
			owner.removeAttribute('aria-activedescendant');
		}
	}

	/* When nobody scrolls any more. */
	showAround(first: number, last: number): void {
		if (first !== this.first || last !== this.last) {
			this.first = first;
			this.last = last;
			clearTimeout(this.waiting);
			this.waiting = setTimeout(() => this.fill(), PATIENCE_MS);
		}
	}

	private fill(): void {
		clearTimeout(this.waiting);
		const indexes = new Set<number>();
		for (let i = this.first; i < this.last; i++) {
			indexes.add(i);
		}
		if (this.chosen >= 0) {
			indexes.add(this.chosen);
		}
		const rows = [...indexes].sort((one, other) => one - other).map((i) => this.item(i));
		this.element.replaceChildren(...rows.filter((row) => row !== undefined));
	}

	private item(index: number): HTMLElement | undefined {
		const { model, tree } = this.state;
		const row = tree.visible[index];
		return (
			row &&
			el(
				'div',
				{
					role: 'treeitem',
					id: `${this.name}-${index}`,
					'aria-level': row.depth + 1,
					'aria-posinset': row.place,
					'aria-setsize': row.siblings,
					...(row.mayOpen ? { 'aria-expanded': String(tree.isOpen(row)) } : {}),
					'aria-selected': String(index === this.chosen),
				},
				rowText(model, row),
			)
		);
	}
}
