/* Statements of a request, grouped by what they are without their values. */
import { titleOf, type Model, type Part } from './model';

export interface StatementGroup {
	readonly statement: string;
	readonly database: string;
	readonly nodes: readonly number[];
	readonly total: number;
	readonly longest: number;
	readonly failed: number;
}

interface Making {
	readonly statement: string;
	readonly database: string;
	readonly server: string | undefined;
	readonly name: string | undefined;
	readonly nodes: number[];
	total: number;
	longest: number;
	failed: number;
}

/* What took longest comes first. */
export function statementGroups(model: Model): StatementGroup[] {
	const known = new Map<string, Making[]>();
	const groups: Making[] = [];
	for (let node = 0; node < model.size; node++) {
		const span = model.spans[node];
		if (span?.statement === undefined || model.isRepeated[node]) {
			continue;
		}
		let same = known.get(span.statement);
		if (!same) {
			same = [];
			known.set(span.statement, same);
		}
		let group = same.find((each) => each.server === span.database_server && each.name === span.database_name);
		if (!group) {
			const database = [span.database_server, span.database_name].filter(Boolean).join(' / ');
			group = { statement: span.statement, server: span.database_server, name: span.database_name, database, nodes: [], total: 0, longest: 0, failed: 0 };
			same.push(group);
			groups.push(group);
		}
		const took = (model.end[node] ?? 0) - (model.start[node] ?? 0);
		group.nodes.push(node);
		group.total += took;
		group.longest = Math.max(group.longest, took);
		group.failed += model.isFailed[node] ?? 0;
	}
	return groups.sort((one, other) => other.total - one.total || other.nodes.length - one.nodes.length);
}

export interface CodeGroup {
	readonly label: string;
	readonly nodes: readonly number[];
	/* Without what they called. */
	readonly self: number;
}

/* Functions of the site's own code in one request, those first that took most time themselves. */
export function codeGroups(model: Model, part: Part): CodeGroup[] {
	const groups = new Map<number, { label: string; nodes: number[]; self: number }>();
	for (let node = part.first; node < part.first + part.count; node++) {
		const self = model.self[node] ?? 0;
		if (model.layer[node] !== 0 || self <= 0 || model.isRepeated[node]) {
			continue;
		}
		const label = model.label[node] ?? 0;
		const group = groups.get(label);
		if (group) {
			group.nodes.push(node);
			group.self += self;
		} else {
			groups.set(label, { label: node === part.first ? titleOf(model, node) : (model.labels[label] ?? ''), nodes: [node], self });
		}
	}
	return [...groups.values()].sort((one, other) => other.self - one.self);
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
