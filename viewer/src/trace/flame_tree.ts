/*
 * The frames of a flame graph: calls that are reached in the same way and do the same are one frame, as
 * wide as they and all below them took themselves.
 */
import { childrenOf, titleOf, type Model } from './model';

export interface Frame {
	readonly id: number;
	readonly label: string;
	readonly layer: number;
	readonly nodes: readonly number[];
	readonly above: Frame | undefined;
	readonly depth: number;
	/* Of all its calls. */
	self: number;
	/* With all that is below. */
	value: number;
	isFailed: boolean;
	/* The widest comes first. */
	below: readonly Frame[];
	/* Where it begins, in milliseconds from the left end. */
	at: number;
}

export interface FlameTree {
	readonly tops: readonly Frame[];
	readonly value: number;
	readonly deepest: number;
	readonly frameOf: readonly (Frame | undefined)[];
}

interface Making extends Frame {
	nodes: number[];
	below: Making[];
}

class FlameMaker {
	readonly frameOf: (Frame | undefined)[];
	private ids = 0;
	private deepest = 0;

	constructor(private readonly model: Model) {
		this.frameOf = new Array<Frame | undefined>(model.size);
	}

	make(): FlameTree {
		const tops = this.framesOf(this.model.roots, undefined);
		// Callers come before what they call.
		const all: Making[] = [];
		const waiting = [...tops];
		for (let frame = waiting.pop(); frame; frame = waiting.pop()) {
			all.push(frame);
			frame.below = this.framesOf(this.callsOf(frame.nodes), frame);
			for (const each of frame.below) {
				waiting.push(each);
			}
		}
		for (const frame of all.reverse()) {
			frame.value = frame.self + frame.below.reduce((sum, each) => sum + each.value, 0);
			frame.below.sort((one, other) => other.value - one.value || one.id - other.id);
		}
		let at = 0;
		for (const top of tops) {
			top.at = at;
			at += top.value;
		}
		for (const frame of all.reverse()) {
			let begin = frame.at;
			for (const each of frame.below) {
				each.at = begin;
				begin += each.value;
			}
		}
		return { tops, value: Math.max(1, at), deepest: this.deepest, frameOf: this.frameOf };
	}

	private callsOf(nodes: readonly number[]): number[] {
		const calls: number[] = [];
		for (const node of nodes) {
			for (const call of childrenOf(this.model, node)) {
				calls.push(call);
			}
		}
		return calls;
	}

	private framesOf(nodes: readonly number[], above: Making | undefined): Making[] {
		const { model } = this;
		const frames = new Map<string, Making>();
		for (const node of nodes) {
			const isRequest = model.parts[model.part[node] ?? 0]?.first === node;
			const key = isRequest ? titleOf(model, node) : `${model.label[node] ?? 0}`;
			let frame = frames.get(key);
			if (!frame) {
				frame = this.frame(isRequest ? key : (model.labels[model.label[node] ?? 0] ?? ''), node, above);
				frames.set(key, frame);
			}
			frame.nodes.push(node);
			frame.self += model.self[node] ?? 0;
			frame.isFailed ||= model.isFailed[node] === 1;
			this.frameOf[node] = frame;
		}
		return [...frames.values()];
	}

	private frame(label: string, node: number, above: Making | undefined): Making {
		const depth = above ? above.depth + 1 : 0;
		this.deepest = Math.max(this.deepest, depth);
		const layer = this.model.layer[node] ?? 0;
		return { id: ++this.ids, label, layer, nodes: [], above, depth, self: 0, value: 0, isFailed: false, below: [], at: 0 };
	}
}

export function flameTree(model: Model): FlameTree {
	return new FlameMaker(model).make();
}
