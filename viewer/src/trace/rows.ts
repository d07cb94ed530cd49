/*
 * The rows that calls are shown in. Calls under the same caller that do the same are one row, "61 ×",
 * and what they call is put together in the same way; it opens into the calls one by one. Rows below
 * one that is closed are made when it is opened.
 */
import { childrenOf, titleOf, wayTo, type Model } from './model';

/*
 * call    one call
 * alike   several that do the same
 * each    those of the row above, one by one
 * silent  several that tell nothing by themselves
 */
export type RowKind = 'call' | 'alike' | 'each' | 'silent';

export interface Row {
	/* The same whenever the same request is shown. */
	readonly key: string;
	readonly kind: RowKind;
	readonly nodes: readonly number[];
	readonly depth: number;
	readonly above: Row | undefined;
	readonly label: string;
	readonly from: number;
	readonly to: number;
	/* Sums over the calls. */
	readonly total: number;
	readonly self: number;
	readonly isFailed: boolean;
	readonly hasFailed: boolean;
	readonly mayOpen: boolean;
	/* Right below, of all its calls together. */
	readonly calls: number;
	/* Among the rows below the one above: from 1 on. */
	place: number;
	siblings: number;
	below: readonly Row[] | undefined;
}

/* Fewer calls that do the same stand for themselves. */
const FEWEST_ALIKE = 3;
const FEW_SPANS = 150;
const AT_ONCE = 300;
/* Of the whole time: what took less is closed at first in a long request. */
const LARGE_PART = 0.01;

const KIND_LETTERS: Readonly<Record<RowKind, string>> = { call: '', alike: 'a', each: 'e', silent: 's' };
const TOGETHER = 'm';
const ALL_SIGNS = { open: '*', closed: '-*' } as const;

const SILENT_TEXTS = { polls: 'polls of transfers', options: 'calls that set up transfers' } as const;

export class RowTree {
	readonly tops: readonly Row[];
	/* In the order in which they are shown, after lay(). */
	visible: readonly Row[] = [];
	/* Of each span the visible row that stands for it. */
	readonly rowOf: Int32Array;
	private readonly toggled = new Map<string, boolean>();
	/* What leads to the first call that the verdict rests on. */
	private readonly toEvidence: ReadonlySet<number>;
	private all: 'open' | 'closed' | undefined;

	constructor(readonly model: Model) {
		const evidence = model.findings[0]?.nodes[0];
		this.toEvidence = new Set(evidence === undefined ? [] : wayTo(model, evidence).slice(0, -1));
		this.rowOf = new Int32Array(model.size);
		this.tops = model.roots.map((node) => this.callRow(node, undefined));
		number(this.tops);
		this.lay();
	}

	isOpen(row: Row): boolean {
		const changed = this.toggled.size > 0 ? this.toggled.get(row.key) : undefined;
		return row.mayOpen && (changed ?? this.isOpenAtFirst(row));
	}

	/* REQUIRES: lay() afterwards. */
	setOpen(row: Row, isOpen: boolean): void {
		if (isOpen === this.isOpenAtFirst(row)) {
			this.toggled.delete(row.key);
		} else {
			this.toggled.set(row.key, isOpen);
		}
	}

	/* All rows, but for calls that are one row. REQUIRES: lay() afterwards. */
	setAll(isOpen: boolean): void {
		this.all = isOpen ? 'open' : 'closed';
		this.toggled.clear();
	}

	/* Makes the rows that are shown when all are open, and stops whenever some were made. */
	*makeAll(): Generator<undefined> {
		const waiting = [...this.tops];
		let made = 0;
		for (let row = waiting.pop(); row; row = waiting.pop()) {
			if (row.mayOpen && !opensOneByOne(row)) {
				const below = this.below(row);
				for (const each of below) {
					waiting.push(each);
				}
				made += below.length;
			}
			if (made > AT_ONCE) {
				made = 0;
				yield;
			}
		}
	}

	/* What was opened and closed by hand. */
	get changes(): string {
		const all = this.all ? [ALL_SIGNS[this.all]] : [];
		return [...all, ...[...this.toggled].map(([key, isOpen]) => (isOpen ? '' : '-') + key)].join('~');
	}

	set changes(text: string) {
		this.toggled.clear();
		this.all = undefined;
		for (const each of text.split('~').filter(Boolean)) {
			if (each === ALL_SIGNS.open || each === ALL_SIGNS.closed) {
				this.all = each === ALL_SIGNS.open ? 'open' : 'closed';
			} else {
				this.toggled.set(each.replace(/^-/, ''), !each.startsWith('-'));
			}
		}
	}

	below(row: Row): readonly Row[] {
		row.below ??= number(this.rowsBelow(row));
		return row.below;
	}

	/*
	 * The row that stands for the span, or the one of that key, after all above it were opened.
	 * REQUIRES: lay() afterwards.
	 */
	reveal(node: number, key = ''): Row | undefined {
		const way = new Set(wayTo(this.model, node));
		const isOneByOne = key !== '' && !key.startsWith(TOGETHER);
		let found: Row | undefined;
		let rows = this.tops;
		for (;;) {
			const holding = rows.filter((row) => row.nodes.some((each) => way.has(each)));
			const row = (isOneByOne && holding.find((each) => each.key === key)) || (isOneByOne ? holding.at(-1) : holding[0]);
			if (!row) {
				return found;
			}
			found = row;
			if (row.key === key || (key === '' && row.nodes.includes(node)) || !row.mayOpen) {
				return row;
			}
			this.setOpen(row, true);
			rows = this.below(row);
		}
	}

	/* Works out what is visible. */
	lay(): void {
		const visible: Row[] = [];
		this.rowOf.fill(-1);
		const waiting = [...this.tops].reverse();
		for (let row = waiting.pop(); row; row = waiting.pop()) {
			for (const node of row.nodes) {
				this.rowOf[node] = visible.length;
			}
			visible.push(row);
			if (this.isOpen(row)) {
				const below = this.below(row);
				for (const each of below.slice().reverse()) {
					waiting.push(each);
				}
			}
		}
		const { parent } = this.model;
		for (let i = 0; i < this.rowOf.length; i++) {
			const of = parent[i] ?? -1;
			if (this.rowOf[i] === -1 && of >= 0) {
				this.rowOf[i] = this.rowOf[of] ?? -1;
			}
		}
		this.visible = visible;
	}

	private isOpenAtFirst(row: Row): boolean {
		const { model } = this;
		if (opensOneByOne(row)) {
			return false;
		}
		if (this.all) {
			return this.all === 'open' || row.depth === 0;
		}
		return (
			model.size <= FEW_SPANS ||
			row.hasFailed ||
			row.depth === 0 ||
			row.total >= model.duration * LARGE_PART ||
			row.nodes.some((node) => this.toEvidence.has(node))
		);
	}

	private rowsBelow(row: Row): Row[] {
		if (opensOneByOne(row)) {
			return row.nodes.map((node) => this.callRow(node, row));
		}
		const calls = this.callsOf(row);
		const rows = this.silentRows(calls, row);
		for (const alike of this.alike(calls, row.nodes.length > 1 ? 1 : FEWEST_ALIKE)) {
			rows.push(alike.length === 1 && row.nodes.length === 1 ? this.callRow(alike[0] ?? 0, row) : this.row('alike', alike, row));
		}
		rows.sort((one, other) => one.from - other.from);
		if (row.nodes.length > 1) {
			rows.push(this.row('each', row.nodes, row));
		}
		return rows;
	}

	private callsOf(row: Row): number[] {
		const { start } = this.model;
		const calls: number[] = [];
		for (const node of row.nodes) {
			for (const child of childrenOf(this.model, node)) {
				calls.push(child);
			}
		}
		return row.nodes.length > 1 ? calls.sort((one, other) => (start[one] ?? 0) - (start[other] ?? 0)) : calls;
	}

	/* Of each kind of silent calls a row. */
	private silentRows(calls: readonly number[], above: Row): Row[] {
		const rows: Row[] = [];
		if (!calls.some((node) => this.model.spans[node]?.fold)) {
			return rows;
		}
		for (const fold of ['polls', 'options'] as const) {
			const nodes = calls.filter((node) => this.model.spans[node]?.fold === fold);
			if (nodes.length > 0) {
				rows.push(this.row('silent', nodes, above, SILENT_TEXTS[fold]));
			}
		}
		return rows;
	}

	/* Calls of one shape together, where there are some; otherwise each for itself. */
	private alike(calls: readonly number[], fewest: number): number[][] {
		const { shape, spans, parts, part } = this.model;
		if (calls.length < fewest) {
			return calls.filter((node) => !spans[node]?.fold).map((node) => [node]);
		}
		const lists = new Map<number, number[]>();
		for (const node of calls) {
			if (spans[node]?.fold) {
				continue;
			}
			// Requests stand for themselves.
			const isRequest = parts[part[node] ?? 0]?.first === node;
			const key = isRequest ? -1 - node : (shape[node] ?? 0);
			const list = lists.get(key);
			if (list) {
				list.push(node);
			} else {
				lists.set(key, [node]);
			}
		}
		return [...lists.values()].flatMap((list) => (list.length < fewest ? list.map((node) => [node]) : [list]));
	}

	private callRow(node: number, above: Row | undefined): Row {
		return this.row('call', [node], above, titleOf(this.model, node));
	}

	private row(kind: RowKind, nodes: readonly number[], above: Row | undefined, label = ''): Row {
		const { model } = this;
		const first = nodes[0] ?? 0;
		let [from, to, total, self, calls, failed, below] = [Infinity, 0, 0, 0, 0, 0, 0];
		for (const node of nodes) {
			const [start, end] = [model.start[node] ?? 0, model.end[node] ?? 0];
			from = Math.min(from, start);
			to = Math.max(to, end);
			total += end - start;
			self += model.self[node] ?? 0;
			calls += (model.childrenFrom[node + 1] ?? 0) - (model.childrenFrom[node] ?? 0);
			failed += model.isFailed[node] ?? 0;
			below += model.hasFailed[node] ?? 0;
		}
		const shown = label || (kind === 'each' ? 'the calls one by one' : nodes.length === 1 ? titleOf(model, first) : (model.labels[model.label[first] ?? 0] ?? ''));
		return {
			key: (kind !== 'each' && isPutTogether(above) ? TOGETHER : '') + KIND_LETTERS[kind] + String(first),
			kind,
			nodes,
			depth: above ? above.depth + 1 : 0,
			above,
			label: shown,
			from,
			to,
			total,
			self,
			isFailed: failed > 0,
			hasFailed: below > 0,
			mayOpen: calls > 0 || nodes.length > 1,
			calls,
			place: 1,
			siblings: 1,
			below: undefined,
		};
	}
}

function number(rows: readonly Row[]): readonly Row[] {
	rows.forEach((row, i) => {
		row.place = i + 1;
		row.siblings = rows.length;
	});
	return rows;
}

/* Into its calls, and not into what they have in common. */
function opensOneByOne(row: Row): boolean {
	return row.kind === 'each' || row.kind === 'silent' || (row.kind === 'alike' && row.calls === 0);
}

/* Rows of calls that were put together are besides those of the calls one by one. */
function isPutTogether(row: Row | undefined): boolean {
	return row !== undefined && ((row.kind === 'alike' && row.calls > 0) || (row.kind !== 'each' && row.key.startsWith(TOGETHER)));
}
