/* What is said beside the pointer. */
import { append, el, replace, type Child } from '../ui/dom';
import { duration, share, times } from '../ui/format';
import type { Model } from './model';
import type { Row } from './rows';

let tip: HTMLElement | undefined;

export function showTip(event: MouseEvent, content: Child): void {
	if (!tip) {
		tip = el('div', { class: 'tip', 'aria-hidden': 'true' });
		append(document.body, tip);
	}
	replace(tip, content);
	tip.hidden = false;
	const { offsetWidth, offsetHeight } = tip;
	const x = Math.max(4, Math.min(event.clientX + 14, innerWidth - offsetWidth - 8));
	const isBelow = event.clientY + 20 + offsetHeight < innerHeight;
	const y = isBelow ? event.clientY + 18 : Math.max(4, event.clientY - offsetHeight - 12);
	tip.style.setProperty('transform', `translate(${x}px, ${y}px)`);
}

export function hideTip(): void {
	if (tip) {
		tip.hidden = true;
	}
}

export function rowTip(model: Model, row: Row): Child {
	const many = row.nodes.length > 1;
	return [
		el('p', { class: 'tip-name' }, many && el('b', {}, times(row.nodes.length), ' '), row.label),
		el(
			'p',
			{ class: 'muted' },
			many ? `together ${duration(row.total)}` : duration(row.total),
			` (${share(row.total / Math.max(1, model.duration))}), itself ${duration(row.self)}, from ${duration(row.from)}`,
			many && ` to ${duration(row.to)}`,
		),
		row.isFailed && el('p', { class: 'bad' }, 'failed'),
	];
}
