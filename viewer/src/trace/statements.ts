/* Statements of a request, grouped by what they are without their values. */
import type { Model } from './model';

export interface StatementGroup {
	readonly statement: string;
	readonly database: string;
	readonly nodes: readonly number[];
	readonly total: number;
	readonly longest: number;
	readonly failed: number;
}

/* What took longest comes first. */
export function statementGroups(model: Model): StatementGroup[] {
	const groups = new Map<string, { statement: string; database: string; nodes: number[]; total: number; longest: number; failed: number }>();
	for (let node = 0; node < model.size; node++) {
		const span = model.spans[node];
		if (span?.statement === undefined || model.isRepeated[node]) {
			continue;
		}
		const database = [span.database_server, span.database_name].filter(Boolean).join(' / ');
		const key = `${database}\n${span.statement}`;
		let group = groups.get(key);
		if (!group) {
			group = { statement: span.statement, database, nodes: [], total: 0, longest: 0, failed: 0 };
			groups.set(key, group);
		}
		const took = (model.end[node] ?? 0) - (model.start[node] ?? 0);
		group.nodes.push(node);
		group.total += took;
		group.longest = Math.max(group.longest, took);
		group.failed += model.isFailed[node] ?? 0;
	}
	return [...groups.values()].sort((one, other) => other.total - one.total || other.nodes.length - one.nodes.length);
}

/* Spans that hold an error, by their start. */
export function failedNodes(model: Model): number[] {
	const nodes: number[] = [];
	for (let node = 0; node < model.size; node++) {
		if (model.isFailed[node] && !model.isRepeated[node]) {
			nodes.push(node);
		}
	}
	return nodes.sort((one, other) => (model.start[one] ?? 0) - (model.start[other] ?? 0));
}
