/* In which column, and where within it, each service stands: behind all that call it. */
import type { GraphEdge, GraphNode } from './graph';

/* A call back to a service that is still being followed would never end: it places nobody. */
function forward(nodes: readonly GraphNode[], edges: readonly GraphEdge[]): readonly GraphEdge[] {
	const from = new Map<string, GraphEdge[]>();
	const called = new Set<string>();
	for (const edge of edges) {
		from.set(edge.from, [...(from.get(edge.from) ?? []), edge]);
		called.add(edge.to);
	}
	const state = new Map<string, 'open' | 'done'>();
	const kept: GraphEdge[] = [];
	const follow = (id: string) => {
		state.set(id, 'open');
		for (const edge of from.get(id) ?? []) {
			if (state.get(edge.to) === 'open') {
				continue;
			}
			kept.push(edge);
			if (!state.has(edge.to)) {
				follow(edge.to);
			}
		}
		state.set(id, 'done');
	};
	// Where nobody calls begins what others do.
	const begins = [...nodes].sort((one, other) => Number(called.has(one.id)) - Number(called.has(other.id)));
	for (const { id } of begins) {
		if (!state.has(id)) {
			follow(id);
		}
	}
	return kept;
}

/* Where a call to a column further on passes between the boxes of this one. */
export interface Passage {
	readonly id: string;
	readonly edge: GraphEdge;
}

export type Placed = GraphNode | Passage;

interface Step {
	readonly from: string;
	readonly to: string;
}

/* Puts passages into the columns between; the steps lead through them to the right, of calls back as well. */
function withPassages(columns: Placed[][], column: ReadonlyMap<string, number>, calls: readonly GraphEdge[]): readonly Step[] {
	const place = (id: string) => column.get(id) ?? 0;
	return calls.flatMap((edge, i) => {
		const isBack = place(edge.from) > place(edge.to);
		const [left, right] = isBack ? [edge.to, edge.from] : [edge.from, edge.to];
		const [first, last] = [place(left), place(right)];
		const ids = [left];
		for (let at = first + 1; at < last; at++) {
			const id = `passage ${i} ${at}`;
			(columns[at] ??= []).push({ id, edge });
			ids.push(id);
		}
		return [...ids.slice(1), right].map((to, step) => ({ from: ids[step] ?? '', to }));
	});
}

/* The columns from the left, each with the services that are called by those before it. */
export function columnsOf(nodes: readonly GraphNode[], edges: readonly GraphEdge[]): readonly (readonly Placed[])[] {
	const calls = forward(nodes, edges);
	const column = new Map(nodes.map((node) => [node.id, 0]));
	for (let round = 0, moved = true; moved && round < nodes.length; round++) {
		moved = false;
		for (const { from, to } of calls) {
			const behind = (column.get(from) ?? 0) + 1;
			if ((column.get(to) ?? 0) < behind) {
				column.set(to, behind);
				moved = true;
			}
		}
	}
	const columns: Placed[][] = [];
	for (const node of nodes) {
		(columns[column.get(node.id) ?? 0] ??= []).push(node);
	}
	const others = edges.filter((edge) => edge.from !== edge.to);
	return inOrder(columns, withPassages(columns, column, others));
}

/* Near those who call them, so that lines cross seldom; the order they came in decides what is equal. */
function inOrder(columns: readonly (readonly Placed[])[], calls: readonly Step[]): readonly (readonly Placed[])[] {
	const place = new Map<string, number>();
	return columns.map((nodes) => {
		const middle = (node: Placed) => {
			const callers = calls.filter((edge) => edge.to === node.id).map((edge) => place.get(edge.from) ?? 0);
			return callers.reduce((sum, at) => sum + at, 0) / Math.max(1, callers.length);
		};
		const middles = new Map(nodes.map((node) => [node.id, middle(node)]));
		const ordered = [...nodes].sort((one, other) => (middles.get(one.id) ?? 0) - (middles.get(other.id) ?? 0));
		ordered.forEach((node, i) => place.set(node.id, (i + 0.5) / ordered.length));
		return ordered;
	});
}
