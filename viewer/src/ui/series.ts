/* Points of a curve, one for each step of the range, whether anything happened in it or not. */
import type { Point, Range } from '../api/types';

export interface Steps {
	readonly times: readonly number[];
	readonly step: number;
	/* From the first step to the end of the last one, in which marks may be, too. */
	readonly range: Range;
	/* Of steps in which nothing happened: null, or what is given. */
	values(pick: (point: Point) => number | null, without?: number): (number | null)[];
}

export function stepsOf(range: Range, step: number, points: readonly Point[]): Steps {
	const floor = (ms: number) => Math.floor(ms / step) * step;
	const byTime = new Map(points.map((point) => [floor(point.time_ms), point]));
	const times: number[] = [];
	const begin = Math.min(floor(range.from_ms), ...byTime.keys());
	for (let at = begin; at < range.to_ms; at += step) {
		times.push(at);
	}
	return {
		times,
		step,
		range: { from_ms: begin, to_ms: Math.max(range.to_ms, begin + step) },
		values: (pick, without) =>
			times.map((at) => {
				const point = byTime.get(at);
				return point ? pick(point) : (without ?? null);
			}),
	};
}
