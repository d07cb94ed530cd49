/*
 * The frames of a flame graph: calls that are reached in the same way and do the same are one frame, as
 * wide as they and all below them took themselves. What is below a frame is made when it is looked at.
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
	readonly self: number;
	/* With all that is below. */
	readonly value: number;
	readonly isFailed: boolean;
	/* Where it begins, in milliseconds from the left end. */
	at: number;
}

interface Making {
	readonly node: number;
	readonly label: string;
	readonly nodes: number[];
	self: number;
	value: number;
	isFailed: boolean;
}

export class FlameTree {
	readonly tops: readonly Frame[];
	readonly value: number;
	readonly deepest: number;
	private readonly values: Float64Array;
	private readonly known = new Map<Frame, readonly Frame[]>();
	private ids = 0;

	constructor(private readonly model: Model) {
		this.values = valuesOf(model);
		this.tops = this.framesOf(model.roots, undefined);
		this.value = Math.max(1, place(this.tops, 0));
		this.deepest = model.depth.reduce((most, depth) => Math.max(most, depth), 0);
	}

	/* The widest comes first. */
	below(frame: Frame): readonly Frame[] {
		let frames = this.known.get(frame);
		if (!frames) {
			frames = this.framesOf(this.callsOf(frame.nodes), frame).sort((one, other) => other.value - one.value || one.id - other.id);
			place(frames, frame.at);
			this.known.set(frame, frames);
		}
		return frames;
	}

	frameOf(node: number): Frame | undefined {
		const above = this.model.parent[node] ?? -1;
		const frame = above < 0 ? undefined : this.frameOf(above);
		return (frame ? this.below(frame) : this.tops).find((each) => each.nodes.includes(node));
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

	private framesOf(nodes: readonly number[], above: Frame | undefined): Frame[] {
		const { model } = this;
		const frames = new Map<number | string, Making>();
		for (const node of nodes) {
			const isRequest = model.parts[model.part[node] ?? 0]?.first === node;
			const label = model.label[node] ?? 0;
			const key = isRequest ? titleOf(model, node) : label;
			let frame = frames.get(key);
			if (!frame) {
				frame = { node, label: isRequest ? String(key) : (model.labels[label] ?? ''), nodes: [], self: 0, value: 0, isFailed: false };
				frames.set(key, frame);
			}
			frame.nodes.push(node);
			frame.self += model.self[node] ?? 0;
			frame.value += this.values[node] ?? 0;
			frame.isFailed ||= model.isFailed[node] === 1;
		}
		const depth = above ? above.depth + 1 : 0;
		return [...frames.values()].map(({ node, ...each }) => ({ ...each, id: ++this.ids, layer: model.layer[node] ?? 0, above, depth, at: 0 }));
	}
}

/* Beside each other; returns how wide they are together. */
function place(frames: readonly Frame[], from: number): number {
	let at = from;
	for (const frame of frames) {
		frame.at = at;
		at += frame.value;
	}
	return at - from;
}

/* Of each span what it and all below it took themselves. */
function valuesOf(model: Model): Float64Array {
	const values = model.self.slice();
	for (let i = model.size; i-- > 0;) {
		const above = model.parent[i] ?? -1;
		if (above >= 0 && !model.isRepeated[i]) {
			values[above] = (values[above] ?? 0) + (values[i] ?? 0);
		}
	}
	return values;
}
