/*
 * The spans of a request, or of all requests of a trace, by their numbers: what is asked of a hundred
 * thousand of them while somebody scrolls has to be in arrays. Callers have smaller numbers than what
 * they call. Times are milliseconds since the begin of the whole.
 */
import type { Details, Fields, Finding, Layer, OneRequest, PathStep, RequestOfTrace, RequestRow, Span, Trace } from '../api/types';

export const LAYERS: readonly Layer[] = ['code', 'database', 'cache', 'http', 'other'];

/* A request of the model. */
export interface Part {
	readonly details: RequestOfTrace;
	readonly row: RequestRow;
	/* Of its spans: from `first` on, `count` of them. */
	readonly first: number;
	readonly count: number;
	readonly start: number;
}

export interface FindingOfPart extends Finding {
	readonly part: Part;
	readonly nodes: readonly number[];
}

export interface Columns {
	readonly part: Uint32Array;
	readonly parent: Int32Array;
	readonly start: Float64Array;
	readonly end: Float64Array;
	/* What neither calls nor called requests cover. */
	readonly self: Float64Array;
	readonly layer: Uint8Array;
	readonly shape: Uint32Array;
	readonly depth: Uint32Array;
	/* Of its name and what it asks for; see `labels`. */
	readonly label: Uint32Array;
	readonly isFailed: Uint8Array;
	/* Itself or anything below. */
	readonly hasFailed: Uint8Array;
	/* A forked process has it from the one before. */
	readonly isRepeated: Uint8Array;
	/* Calls of span `i`: `children` from `childrenFrom[i]` to `childrenFrom[i + 1]`, by their start. */
	readonly childrenFrom: Uint32Array;
	readonly children: Uint32Array;
	/* For how long the critical path runs through it. */
	readonly held: Float64Array;
	/* Steps of the critical path. */
	readonly stepNode: Uint32Array;
	readonly stepFrom: Float64Array;
	readonly stepTo: Float64Array;
}

export interface Model extends Columns {
	readonly isTrace: boolean;
	readonly id: string;
	/* Of the wall, milliseconds since 1970. */
	readonly begun: number;
	readonly duration: number;
	readonly size: number;
	readonly spans: readonly Span[];
	readonly parts: readonly Part[];
	/* Requests of the trace whose spans are not known. */
	readonly without: readonly RequestRow[];
	readonly leftOut: number;
	readonly requestsOfTrace: number;
	readonly labels: readonly string[];
	readonly findings: readonly FindingOfPart[];
	/* Top spans: those that no span here has called. */
	readonly roots: readonly number[];
}

const LONGEST_LABEL = 300;

/* Without what would run over the text beside it: control characters and marks of the direction. */
export function plain(text: string): string {
	const short = text.length > LONGEST_LABEL ? `${text.slice(0, LONGEST_LABEL)}…` : text;
	return short.replace(/[\x00-\x20\x7f-\x9f\u2028\u2029\u00a0]+/g, ' ').replace(/[\u061c\u200b-\u200f\u202a-\u202e\u2066-\u2069\ufeff]/g, '�');
}

export function isHttpCall(span: Span): boolean {
	return span.endpoint !== undefined;
}

/* What a span does, without what differs from one call to the next. */
function labelOf(span: Span): string {
	return span.statement ?? span.endpoint ?? (span.host ? `${span.name}  ${span.host}` : span.name);
}

export function requestTitle(row: RequestRow): string {
	return row.web ? `${row.method} ${row.path}`.trim() : row.path || row.name;
}

/* What one span is called. */
export function titleOf(model: Model, node: number): string {
	const span = model.spans[node];
	const part = model.parts[model.part[node] ?? 0];
	if (!span || !part) {
		return '';
	}
	if (node === part.first) {
		return plain(model.isTrace ? `${part.row.application}  ${requestTitle(part.row)}` : requestTitle(part.row));
	}
	if (isHttpCall(span)) {
		return plain(`${span.host ?? ''} → ${span.status ? String(span.status) : 'no answer'}`);
	}
	return model.labels[model.label[node] ?? 0] ?? '';
}

/* Gets spans as they come, and makes the model of them at the end. */
export class ModelBuilder {
	private readonly lists: Span[][] = [];
	private readonly labelLists: number[][] = [];
	private readonly numbers = new Map<string, number>();
	private readonly labels: string[] = [];
	private count = 0;

	get size(): number {
		return this.count;
	}

	add(list: number, spans: readonly Span[]): void {
		const all = (this.lists[list] ??= []);
		const labels = (this.labelLists[list] ??= []);
		for (const span of spans) {
			all.push(span);
			labels.push(this.number(labelOf(span)));
		}
		this.count += spans.length;
	}

	request(answer: OneRequest): Model {
		const details: RequestOfTrace = { ...answer, start_ms: 0 };
		return this.build([details], answer.critical_path ?? [], {
			isTrace: false,
			id: answer.request.id,
			begun: answer.request.start_ms,
			duration: answer.request.duration_ms,
			leftOut: 0,
			requestsOfTrace: answer.requests_of_trace,
		});
	}

	trace(answer: Trace): Model {
		return this.build(answer.requests, answer.critical_path, {
			isTrace: true,
			id: answer.trace_id,
			begun: answer.start_ms,
			duration: answer.duration_ms,
			leftOut: answer.left_out,
			requestsOfTrace: answer.requests.length,
		});
	}

	private number(label: string): number {
		let number = this.numbers.get(label);
		if (number === undefined) {
			number = this.labels.push(plain(label) || '(no name)') - 1;
			this.numbers.set(label, number);
		}
		return number;
	}

	private build(
		requests: readonly RequestOfTrace[],
		path: readonly PathStep[],
		known: Pick<Model, 'isTrace' | 'id' | 'begun' | 'duration' | 'leftOut' | 'requestsOfTrace'>,
	): Model {
		const spans: Span[] = [];
		const parts: Part[] = [];
		const without: RequestRow[] = [];
		let list = 0;
		for (const details of requests) {
			const own = details.spans ? (this.lists[list++] ?? []) : [];
			if (own.length === 0) {
				without.push(details.request);
				continue;
			}
			parts.push({ details, row: details.request, first: spans.length, count: own.length, start: details.start_ms ?? 0 });
			for (const span of own) {
				spans.push(span);
			}
		}
		const labels = Uint32Array.from(this.labelLists.flat());
		const columns = columnsOf(spans, parts, labels, path);
		let end = known.duration;
		for (let i = 0; i < spans.length; i++) {
			end = Math.max(end, columns.end[i] ?? 0);
		}
		const roots = parts.map((part) => part.first).filter((first) => columns.parent[first] === -1);
		return { ...known, ...columns, duration: end, size: spans.length, spans, parts, without, labels: this.labels, findings: findingsOf(parts), roots };
	}
}

function findingsOf(parts: readonly Part[]): FindingOfPart[] {
	const all = parts.flatMap((part) =>
		(part.details.findings ?? []).map((finding) => ({
			...finding,
			part,
			nodes: finding.spans.filter((span) => span >= 0 && span < part.count).map((span) => part.first + span),
		})),
	);
	// Those of one request have their order already.
	return parts.length === 1 ? all : all.sort((one, other) => other.gain_ms - one.gain_ms);
}

type Writable = { -readonly [Name in keyof Columns]: Columns[Name] };

function columnsOf(spans: readonly Span[], parts: readonly Part[], label: Uint32Array, path: readonly PathStep[]): Columns {
	const size = spans.length;
	const columns: Writable = {
		part: new Uint32Array(size),
		parent: new Int32Array(size).fill(-1),
		start: new Float64Array(size),
		end: new Float64Array(size),
		self: new Float64Array(size),
		layer: new Uint8Array(size),
		shape: new Uint32Array(size),
		depth: new Uint32Array(size),
		label,
		isFailed: new Uint8Array(size),
		hasFailed: new Uint8Array(size),
		isRepeated: new Uint8Array(size),
		childrenFrom: new Uint32Array(size + 1),
		children: new Uint32Array(size),
		held: new Float64Array(size),
		stepNode: new Uint32Array(0),
		stepFrom: new Float64Array(0),
		stepTo: new Float64Array(0),
	};
	let shapes = 0;
	parts.forEach((part, number) => {
		for (const span of part.details.repeated_spans ?? []) {
			if (span > 0 && span < part.count) {
				columns.isRepeated[part.first + span] = 1;
			}
		}
		shapes += fillPart(columns, spans, part, number, shapes, parts);
	});
	link(columns);
	addSteps(columns, parts, path);
	return columns;
}

/* Returns how many shapes it has. */
function fillPart(columns: Writable, spans: readonly Span[], part: Part, number: number, shapes: number, parts: readonly Part[]): number {
	let most = 0;
	for (let i = part.first; i < part.first + part.count; i++) {
		const span = spans[i];
		if (!span) {
			continue;
		}
		columns.part[i] = number;
		columns.start[i] = part.start + span.start_ms;
		columns.end[i] = part.start + span.start_ms + Math.max(0, span.duration_ms);
		columns.self[i] = span.self_ms;
		columns.layer[i] = Math.max(0, LAYERS.indexOf(span.layer));
		columns.shape[i] = shapes + span.shape;
		columns.isFailed[i] = (span.failed ?? false) || (span.failures?.length ?? 0) > 0 ? 1 : 0;
		columns.parent[i] = i === part.first ? callerOf(part, number, parts) : parentOf(columns, part, i, span);
		most = Math.max(most, span.shape + 1);
	}
	takeFromCaller(columns, part);
	return most;
}

function callerOf(part: Part, number: number, parts: readonly Part[]): number {
	const { caller } = part.details;
	const calling = caller && caller.request < number ? parts[caller.request] : undefined;
	return caller && calling && caller.span < calling.count ? calling.first + caller.span : -1;
}

/* Of what a forked process only repeats, nothing is shown: its calls hang on what is above. */
function parentOf(columns: Writable, part: Part, node: number, span: Span): number {
	let parent = part.first + span.parent;
	parent = span.parent < 0 || parent >= node ? part.first : parent;
	while (columns.isRepeated[parent] === 1) {
		parent = columns.parent[parent] ?? part.first;
	}
	return parent;
}

/* While another request is at work, the call that waits for it does nothing itself. */
function takeFromCaller(columns: Writable, part: Part): void {
	const caller = columns.parent[part.first] ?? -1;
	if (caller < 0 || part.details.forked_from !== undefined) {
		return;
	}
	const [from, to] = [Math.max(columns.start[part.first] ?? 0, columns.start[caller] ?? 0), Math.min(columns.end[part.first] ?? 0, columns.end[caller] ?? 0)];
	columns.self[caller] = Math.max(0, (columns.self[caller] ?? 0) - Math.max(0, to - from));
}

function link(columns: Writable): void {
	const { parent, isRepeated, childrenFrom, children, start, depth, hasFailed, isFailed } = columns;
	const size = parent.length;
	for (let i = 0; i < size; i++) {
		const of = parent[i] ?? -1;
		if (of >= 0 && !isRepeated[i]) {
			childrenFrom[of + 1] = (childrenFrom[of + 1] ?? 0) + 1;
			depth[i] = (depth[of] ?? 0) + 1;
		}
	}
	for (let i = 0; i < size; i++) {
		childrenFrom[i + 1] = (childrenFrom[i + 1] ?? 0) + (childrenFrom[i] ?? 0);
	}
	const next = childrenFrom.slice();
	const unsorted = new Set<number>();
	for (let i = 0; i < size; i++) {
		const of = parent[i] ?? -1;
		if (of >= 0 && !isRepeated[i]) {
			const at = next[of] ?? 0;
			children[at] = i;
			next[of] = at + 1;
			if (at > (childrenFrom[of] ?? 0) && (start[children[at - 1] ?? 0] ?? 0) > (start[i] ?? 0)) {
				unsorted.add(of);
			}
		}
	}
	for (const of of unsorted) {
		children.subarray(childrenFrom[of], childrenFrom[of + 1]).sort((one, other) => (start[one] ?? 0) - (start[other] ?? 0) || one - other);
	}
	for (let i = size; i-- > 0;) {
		hasFailed[i] = hasFailed[i] || isFailed[i] ? 1 : 0;
		const of = parent[i] ?? -1;
		if (of >= 0 && hasFailed[i] && !isRepeated[i]) {
			hasFailed[of] = 1;
		}
	}
}

function addSteps(columns: Writable, parts: readonly Part[], path: readonly PathStep[]): void {
	const nodes = new Uint32Array(path.length);
	const [from, to] = [new Float64Array(path.length), new Float64Array(path.length)];
	let steps = 0;
	for (const step of path) {
		const part = parts[step.request ?? 0];
		if (part && step.span < part.count) {
			nodes[steps] = part.first + step.span;
			from[steps] = step.from_ms;
			to[steps] = step.to_ms;
			columns.held[part.first + step.span] = (columns.held[part.first + step.span] ?? 0) + step.to_ms - step.from_ms;
			steps++;
		}
	}
	columns.stepNode = nodes.subarray(0, steps);
	columns.stepFrom = from.subarray(0, steps);
	columns.stepTo = to.subarray(0, steps);
}

export function childrenOf(model: Columns, node: number): Uint32Array {
	return model.children.subarray(model.childrenFrom[node], model.childrenFrom[node + 1]);
}

/* The span itself and all above it, the outermost first. */
export function wayTo(model: Columns, node: number): number[] {
	const way: number[] = [];
	for (let at = node; at >= 0; at = model.parent[at] ?? -1) {
		way.push(at);
	}
	return way.reverse();
}

/* The nearest function of the site's own code above it; -1 if there is none. */
export function codeAbove(model: Columns, node: number): number {
	let at = model.parent[node] ?? -1;
	while (at >= 0 && model.layer[at] !== 0) {
		at = model.parent[at] ?? -1;
	}
	return at;
}

export function detailsOf(model: Model, node: number): Details | undefined {
	return model.parts[model.part[node] ?? 0]?.details;
}

export const NO_FIELDS: Fields = [];
