/* A row of figures with their names, and levels of what is good and bad. */
import { el, type Child } from './dom';

export interface Figure {
	readonly name: string;
	readonly value: Child;
	readonly help?: string;
	readonly className?: string;
}

export function figures(list: readonly Figure[]): HTMLElement {
	return el(
		'dl',
		{ class: 'figures' },
		list.map((each) =>
			el(
				'div',
				{ class: 'figure', title: each.help },
				el('dt', {}, each.name),
				el('dd', { class: each.className ?? '' }, each.value),
			),
		),
	);
}

/* The class of a share that failed. */
export function errorLevel(part: number | null): string {
	return part === null || part < 0.001 ? '' : part < 0.02 ? 'warn' : 'bad';
}

export function apdexLevel(score: number | null): string {
	return score === null || score >= 0.85 ? '' : score >= 0.7 ? 'warn' : 'bad';
}

/* How large a part of the whole it is. */
export function bar(part: number): HTMLElement {
	const percent = Math.max(0, Math.min(1, part)) * 100;
	return el('span', { class: 'bar', style: { '--part': `${percent.toFixed(1)}%` }, 'aria-hidden': 'true' });
}
