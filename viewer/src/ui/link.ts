/* Links to pages, which keep the time range, the application and the host. */
import { elsewhere, here, hrefOf, type Changes, type Own, type PageName } from '../state/address';
import { el, shortened, type Child } from './dom';

const LONGEST_TITLE = 2000;

export function pageHref(page: PageName, own: Own = {}, changes: Omit<Changes, 'own'> = {}): string {
	return hrefOf(elsewhere(here(), page, own, { q: '', ...changes }));
}

export function pageLink(page: PageName, own: Own, changes: Omit<Changes, 'own'>, ...children: readonly Child[]): HTMLAnchorElement {
	return el('a', { href: pageHref(page, own, changes) }, children);
}

export function requestLink(id: string, ...children: readonly Child[]): HTMLAnchorElement {
	return el('a', { href: pageHref('request', { id }) }, children);
}

/*
 * `text` is what is read; the transaction's name if it is left out. One without a name has no page: its
 * link leads to its requests.
 */
export function transactionLink(application: string, transaction: string, text = transaction): HTMLAnchorElement {
	return el(
		'a',
		{
			class: 'cut',
			href: transaction
				? pageHref('transaction', { txn: transaction }, { app: application })
				: pageHref('search', { order: 'slowest' }, { app: application, q: term('txn', '') }),
			title: shortened(text, LONGEST_TITLE) || 'Its requests',
		},
		shortened(text, 300) || '(no name)',
	);
}

/* A term of the query language that means the text itself; `*` and `?` are no wildcards in it. */
export function term(field: string, text: string): string {
	return `${field}:"${text.replace(/[\\"]/g, '\\$&')}"`;
}
