/* What the address narrows a page's questions by. */
import type { Narrowed, Scope } from '../api/services';
import { timeOf, type Address } from '../state/address';

export function scopeOf(address: Address): Scope {
	return { from: address.from, to: address.to, app: address.app };
}

export function narrowedBy(address: Address): Narrowed {
	return { ...scopeOf(address), host: address.host, q: address.q };
}

/* A pattern of the interface that means this name alone. */
export function exactly(name: string): string {
	return name.replace(/[\\*?]/g, '\\$&');
}

const UNIT = 60000;
const HOUR = 60 * UNIT;

/* A step in whole minutes, for about so many points; whole hours where the range has many. */
export function stepFor(address: Address, points: number): number {
	const now = Date.now();
	const length = timeOf(address.to, now) - timeOf(address.from, now);
	const unit = length > points * HOUR ? HOUR : UNIT;
	return Math.max(unit, Math.ceil(length / points / unit) * unit) || UNIT;
}

/* Words for kinds of findings, behind the interface's names. */
export const FINDING_TEXTS: Readonly<Record<string, string>> = {
	failure: 'failure',
	'duplicate-statement': 'same statement, same values',
	'repeated-statement': 'repeated statement',
	'slow-statement': 'slow statement',
	'repeated-cache-call': 'repeated cache call',
	'calls-in-sequence': 'calls one after the other',
	'slow-call': 'slow call',
	'failed-call': 'failed call',
	waiting: 'waiting',
	'slow-code': 'slow code',
	'time-limit': 'time limit',
	polling: 'polling',
	'span-limit': 'limit of spans',
};
