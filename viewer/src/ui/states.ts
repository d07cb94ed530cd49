/* What stands where there is nothing to show: nothing yet, nothing at all, or something went wrong. */
import { ApiMistake } from '../api/ask';
import { el, type Child } from './dom';

/* Says what is missing and, behind it, what to do next. */
export function emptyState(what: string, ...next: readonly Child[]): HTMLElement {
	return el('div', { class: 'state' }, el('p', { class: 'state-what' }, what), next.length > 0 && el('p', {}, next));
}

export function command(text: string): HTMLElement {
	return el('code', { class: 'command' }, text);
}

function loginState(): HTMLElement {
	return el(
		'div',
		{ class: 'state', role: 'alert' },
		el('p', { class: 'state-what' }, 'This browser is not logged in.'),
		el('p', {}, 'Run ', command('kaq open'), ' on the host of the collector and follow the link that it prints.'),
	);
}

/* `what` names what could not be had, such as "The transactions". */
export function errorState(what: string, error: unknown, again?: () => void): HTMLElement {
	if (error instanceof ApiMistake && error.status === 401) {
		return loginState();
	}
	const isOurs = !(error instanceof ApiMistake);
	const text = error instanceof Error ? error.message : String(error);
	const hint = error instanceof ApiMistake ? error.hint : 'This is a mistake of these pages, not of your site.';
	return el(
		'div',
		{ class: 'state state-error', role: 'alert' },
		el('p', { class: 'state-what' }, `${what} cannot be shown: ${text}`),
		hint && el('p', {}, hint),
		!isOurs && error.mistakes.map((each) => el('p', {}, `Column ${each.column}: ${each.text}`)),
		again && el('button', { type: 'button', on: { click: again } }, 'Try again'),
	);
}
