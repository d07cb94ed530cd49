/* Where an axis of time has its words: at round times of the viewer's zone. */

const [SECOND, MINUTE, HOUR, DAY] = [1000, 60000, 3600000, 86400000] as const;
const STEPS = [
	...[1, 2, 5, 10, 15, 30].map((each) => each * SECOND),
	...[1, 2, 5, 10, 15, 30].map((each) => each * MINUTE),
	...[1, 2, 3, 6, 12].map((each) => each * HOUR),
	...[1, 2, 7, 14, 30, 60, 120].map((each) => each * DAY),
];

export interface Tick {
	readonly at: number;
	readonly text: string;
}

/* At most so many. */
export function timeTicks(from: number, to: number, most: number): readonly Tick[] {
	const step = STEPS.find((each) => (to - from) / each <= most) ?? to - from + 1;
	const format = new Intl.DateTimeFormat(
		'en-GB',
		step >= DAY ? { day: 'numeric', month: 'short' } : { hour: '2-digit', minute: '2-digit', ...(step < MINUTE ? { second: '2-digit' } : {}) },
	);
	const zone = new Date(from).getTimezoneOffset() * MINUTE;
	const ticks: Tick[] = [];
	for (let at = Math.ceil((from - zone) / step) * step + zone; at <= to; at += step) {
		ticks.push({ at, text: format.format(at) });
	}
	return ticks;
}
