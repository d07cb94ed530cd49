/* The part of the time that is shown, and where its moments are. */

export interface TimeRange {
	readonly from: number;
	readonly to: number;
}

const SMALLEST_RANGE = 0.5; // milliseconds

export class Zoom {
	from = 0;
	to: number;

	constructor(readonly duration: number) {
		this.to = Math.max(1, duration);
	}

	get whole(): number {
		return Math.max(1, this.duration);
	}

	get isWhole(): boolean {
		return this.from <= 0 && this.to >= this.whole;
	}

	set(from: number, to: number): void {
		const size = Math.min(this.whole, Math.max(SMALLEST_RANGE, to - from));
		this.from = Math.min(Math.max(0, from), this.whole - size);
		this.to = this.from + size;
	}

	/* By a factor below 1 nearer, around a moment that stays where it is. */
	by(factor: number, around = (this.from + this.to) / 2): void {
		const size = Math.min(this.whole, Math.max(SMALLEST_RANGE, (this.to - this.from) * factor));
		const share = (around - this.from) / (this.to - this.from);
		this.set(around - size * share, around - size * share + size);
	}

	move(ms: number): void {
		this.set(this.from + ms, this.to + ms);
	}

	/* Onto a span, with some room beside it. */
	onto(from: number, to: number): void {
		const room = Math.max((to - from) * 0.05, 0.25);
		this.set(from - room, to + room);
	}
}

/* Round moments at most so many, from the first on. */
export function ticks(from: number, to: number, most: number): { readonly step: number; readonly at: readonly number[] } {
	const least = (to - from) / Math.max(1, most);
	let step = 10 ** Math.floor(Math.log10(Math.max(least, 1e-3)));
	for (const factor of [1, 2, 5, 10]) {
		if (step * factor >= least) {
			step *= factor;
			break;
		}
	}
	const at: number[] = [];
	for (let i = Math.ceil(from / step); i * step <= to; i++) {
		at.push(i * step);
	}
	return { step, at };
}
