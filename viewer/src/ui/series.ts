/* Points of a curve, one for each step of the range, whether anything happened in it or not. */
import type { Range } from '../api/types';

interface Counted {
	readonly time_ms: number;
	readonly count?: number;
}

export interface Steps<Point extends Counted> {
	readonly times: readonly number[];
	readonly step: number;
	/* From the first step to the end of the last one, in which marks may be, too. */
	readonly range: Range;
	/* Of steps in which nothing happened: null, or what is given. */
	values(pick: (point: Point) => number | null, without?: number): (number | null)[];
	/* How often a minute, by the part of each step that is in the range: the last one has mostly just begun.
	 * Null where that part is too little to tell. */
	rates(): (number | null)[];
}

const MINUTE = 60000;
const HOUR = 60 * MINUTE;
const LEAST_PART = 0.25;

/* Milliseconds. Figures begin with a whole minute, or a whole hour where steps are longer. */
function partOf(at: number, step: number, range: Range): number {
	const whole = step > HOUR ? step : MINUTE;
	const begin = Math.max(at, Math.floor(range.from_ms / whole) * whole);
	const end = Math.min(at + step, range.to_ms);
	return end > begin ? end - begin : step;
}

/* Steps are counted from `origin` on. */
export function stepsOf<Point extends Counted>(range: Range, step: number, points: readonly Point[], origin = 0): Steps<Point> {
	const floor = (ms: number) => origin + Math.floor((ms - origin) / step) * step;
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
		rates: () =>
			times.map((at) => {
				const part = partOf(at, step, range);
				return part < step * LEAST_PART ? null : ((byTime.get(at)?.count ?? 0) * MINUTE) / part;
			}),
	};
}
