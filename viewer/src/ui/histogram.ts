/* How durations are spread, on a logarithmic scale: a bar for each bucket, which is a link. */
import type { Bucket } from '../api/types';
import { el } from './dom';
import { count, duration, plural } from './format';

/* Columns that have room for a word each. */
const SHORT = 14;

/* As the interface has them: 1 2 3 5 7, then 10 15 20 30 50 70 of each power of ten. */
function bounds(from: number, to: number): number[] {
	const all = [0, 1, 2, 3, 5, 7];
	for (let power = 1; (all.at(-1) ?? 0) < to; power *= 10) {
		all.push(...[10, 15, 20, 30, 50, 70].map((each) => each * power));
	}
	return all.filter((each) => each >= from && each <= to);
}

export interface HistogramOptions {
	readonly buckets: readonly Bucket[];
	readonly href: (bucket: Bucket) => string;
	readonly marks: readonly (readonly [string, number | null])[];
}

export function histogram({ buckets, href, marks }: HistogramOptions): HTMLElement {
	const [first, last] = [buckets[0], buckets.at(-1)];
	if (!first || !last) {
		return el('div');
	}
	const edges = bounds(first.from_ms, last.to_ms);
	const known = new Map(buckets.map((bucket) => [bucket.from_ms, bucket.count]));
	const most = Math.max(...buckets.map((bucket) => bucket.count));
	const all = buckets.reduce((sum, bucket) => sum + bucket.count, 0);
	const columns = edges.slice(0, -1).map((from, i) => {
		const bucket = { from_ms: from, to_ms: edges[i + 1] ?? from, count: known.get(from) ?? 0 };
		const names = marks.filter(([, at]) => at !== null && at >= bucket.from_ms && at < bucket.to_ms).map(([name]) => name);
		const text = `${duration(bucket.from_ms)} to ${duration(bucket.to_ms)}: ${plural(bucket.count, 'request')}, ${((bucket.count / all) * 100).toFixed(1)} %`;
		const bar = el('span', { class: 'histogram-bar', style: { '--part': String(bucket.count / most) } });
		const inner = [
			el('span', { class: 'histogram-marks' }, names.join(' ')),
			el('span', { class: 'histogram-room' }, bar),
			el('span', { class: 'histogram-edge' }, duration(bucket.from_ms)),
		];
		return bucket.count > 0
			? el('a', { class: 'histogram-column', href: href(bucket), title: text, 'aria-label': `${text}. Show them` }, inner)
			: el('div', { class: 'histogram-column', title: text, 'aria-hidden': 'true' }, inner);
	});
	return el(
		'div',
		{ class: columns.length > SHORT ? 'histogram is-long' : 'histogram', role: 'group', 'aria-label': `Durations of ${count(all)} requests` },
		columns,
	);
}
