/* What the parts of the page have in common: what is shown of the model, and what is chosen in it. */
import type { Model } from './model';
import { RowTree, type Row } from './rows';
import { Zoom } from './scale';

/* Spans that were chosen together: of a row, or of a frame of the flame graph. */
export interface Choice {
	readonly nodes: readonly number[];
	readonly label: string;
	/* Of the row or the frame, the same whenever the same request is shown. */
	readonly key: string;
}

/* choice  what is chosen        rows  which rows there are   zoom  which time is shown
 * marks   which spans are meant by a finding, a statement or a search */
export type Change = 'choice' | 'rows' | 'zoom' | 'marks';

export class ViewState {
	readonly tree: RowTree;
	readonly zoom: Zoom;
	choice: Choice | undefined;
	/* Of each span whether it is meant; undefined: nothing is marked. */
	marks: Uint8Array | undefined;
	/* What the marks come from, such as "finding 0", "statement 12" or "search price". */
	marksOf = '';
	private readonly listeners = new Set<(change: Change) => void>();

	constructor(readonly model: Model) {
		this.tree = new RowTree(model);
		this.zoom = new Zoom(model.duration);
	}

	on(listener: (change: Change) => void): void {
		this.listeners.add(listener);
	}

	tell(change: Change): void {
		for (const each of this.listeners) {
			each(change);
		}
	}

	choose(choice: Choice | undefined): void {
		if (choice?.key !== this.choice?.key || choice?.nodes !== this.choice?.nodes) {
			this.choice = choice;
			this.tell('choice');
		}
	}

	/* Opens what is above the span and chooses its row. */
	reveal(node: number, key = ''): Row | undefined {
		const row = this.tree.reveal(node, key);
		this.tree.lay();
		this.tell('rows');
		if (row) {
			this.choose(row);
		}
		return row;
	}

	mark(of: string, nodes: Iterable<number>): void {
		const marks = new Uint8Array(this.model.size);
		let some = false;
		for (const node of nodes) {
			marks[node] = 1;
			some = true;
		}
		this.marks = some || of !== '' ? marks : undefined;
		this.marksOf = of;
		this.tell('marks');
	}

	/* Marks spans and brings the first of them to sight. */
	point(of: string, nodes: readonly number[]): void {
		this.mark(of, nodes);
		if (nodes[0] !== undefined) {
			this.reveal(nodes[0]);
		}
	}

	unmark(): void {
		this.marks = undefined;
		this.marksOf = '';
		this.tell('marks');
	}

	setOpen(row: Row, isOpen: boolean): void {
		this.tree.setOpen(row, isOpen);
		this.tree.lay();
		this.tell('rows');
	}

	zoomTo(change: (zoom: Zoom) => void): void {
		change(this.zoom);
		this.tell('zoom');
	}
}
