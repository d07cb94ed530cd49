/* Marked moments, such as releases. */
import { api } from '../api/services';
import type { Mark } from '../api/types';
import { timeOf, type Address } from '../state/address';
import { el } from '../ui/dom';
import { timeElement } from '../ui/format';
import { pageLink } from '../ui/link';

/* A page is worth showing without them. */
export async function marksOf(address: Address, signal: AbortSignal): Promise<readonly Mark[]> {
	try {
		return (await api.marks({ from: address.from, to: address.to, app: address.app }, signal)).marks;
	} catch {
		return [];
	}
}

/* As long after the mark as until now, and as long before it, within the range that is shown. */
export function windowsAround(mark: Mark, address: Address, now = Date.now()): Readonly<Record<string, string>> {
	const [from, to] = [timeOf(address.from, now), timeOf(address.to, now)];
	const length = Math.max(60000, Math.min(to - mark.time_ms, mark.time_ms - from) || 3600000);
	return {
		what: 'windows',
		from1: String(mark.time_ms - length),
		to1: String(mark.time_ms),
		from2: String(mark.time_ms),
		to2: String(mark.time_ms + length),
	};
}

export function markList(marks: readonly Mark[], address: Address): HTMLElement | false {
	return (
		marks.length > 0 &&
		el(
			'ul',
			{ class: 'marks' },
			marks.slice(-10).map((mark) =>
				el(
					'li',
					{},
					el('span', { class: 'mark-text' }, `▾ ${mark.text}`),
					' ',
					timeElement(mark.time_ms),
					' ',
					pageLink('compare', windowsAround(mark, address), {}, 'compare before and after'),
				),
			),
		)
	);
}
