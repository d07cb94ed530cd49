/* Of many services of a kind those with most to tell stand by themselves, the others as one. */
import type { Graph, GraphEdge, GraphNode, NodeKind } from './graph';

/* So many of a kind are seen at once. */
export const MOST_OF_KIND: Readonly<Record<NodeKind, number>> = { application: 12, host: 8, database: 8 };

/* What a service took of others' time or, where nobody calls it, of its own. */
function weights(graph: Graph): ReadonlyMap<string, number> {
	const sums = new Map<string, number>();
	for (const node of graph.nodes) {
		sums.set(node.id, node.application?.total_ms ?? 0);
	}
	for (const { to, total_ms: total } of graph.edges) {
		sums.set(to, (sums.get(to) ?? 0) + total);
	}
	return sums;
}

/* Nodes come with the heaviest first. */
export function folded(graph: Graph, opened: ReadonlySet<string> = new Set()): Graph {
	const weight = weights(graph);
	const nodes = [...graph.nodes].sort((one, other) => (weight.get(other.id) ?? 0) - (weight.get(one.id) ?? 0));
	const standsFor = new Map<string, string>();
	const shown: GraphNode[] = [];
	for (const kind of Object.keys(MOST_OF_KIND) as NodeKind[]) {
		const all = nodes.filter((node) => node.kind === kind);
		// One more takes no more room than the box that stands for it.
		const isWhole = opened.has(kind) || all.length <= MOST_OF_KIND[kind] + 1;
		const seen = isWhole ? all : all.slice(0, MOST_OF_KIND[kind]);
		const others = all.slice(seen.length);
		shown.push(...seen);
		if (others.length > 0) {
			const rest: GraphNode = { id: `others ${kind}`, kind, name: '', others: others.length };
			shown.push(rest);
			for (const node of others) {
				standsFor.set(node.id, rest.id);
			}
		}
	}
	return { nodes: shown, edges: joined(graph.edges, standsFor) };
}

/* Calls from and to what stands as one are one; among themselves they have no line. */
function joined(edges: readonly GraphEdge[], standsFor: ReadonlyMap<string, string>): readonly GraphEdge[] {
	const sums = new Map<string, GraphEdge>();
	for (const edge of edges) {
		const [from, to] = [standsFor.get(edge.from) ?? edge.from, standsFor.get(edge.to) ?? edge.to];
		const isWithin = from === to && from !== edge.from;
		const id = JSON.stringify([from, to]);
		const sum = sums.get(id);
		if (sum) {
			sum.count += edge.count;
			sum.failed += edge.failed;
			sum.total_ms += edge.total_ms;
			sum.p95_ms = Math.max(sum.p95_ms ?? 0, edge.p95_ms ?? 0);
		} else if (!isWithin) {
			sums.set(id, { ...edge, from, to });
		}
	}
	return [...sums.values()];
}
