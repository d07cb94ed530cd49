/* Whether pages are whole: nothing fails, nothing is cut off, everybody can use them. */
import assert from 'node:assert/strict';
import { accessibilityProblems } from './accessibility.mjs';
import { show } from './collector.mjs';
import { layoutProblems } from './layout.mjs';

/* Both widths in both themes, as options of openPage(). */
export const SCREENS = [[1280, 900], [390, 800]].flatMap(([width, height]) => ['light', 'dark'].map((colorScheme) => ({ viewport: { width, height }, colorScheme })));

export function screenName({ viewport, colorScheme }) {
	return `${viewport.width} pixels in the ${colorScheme} theme`;
}

/* Every page, by what it is, of a site with this application, a transaction of it, a host and two requests. */
export function pagePaths({ app, txn, host, requests: [one, other] }, now = Date.now()) {
	const times = new URLSearchParams({ what: 'windows', from1: now - 3e6, to1: now - 12e5, from2: now - 12e5, to2: now });
	const transaction = new URLSearchParams({ app, txn });
	return {
		overview: '/',
		transactions: '/transactions',
		transaction: `/transaction?${transaction}`,
		queries: '/queries',
		errors: '/errors',
		external: '/external',
		'queries of a host': `/queries?host=${host}`,
		'external of a host': `/external?host=${host}`,
		'errors of a host': `/errors?host=${host}`,
		'transaction of a host': `/transaction?${transaction}&host=${host}`,
		map: '/map',
		search: '/search',
		'search of failed ones': '/search?q=is%3Afailed',
		live: '/live',
		'compare with the typical': `/compare?what=typical&a=${one}`,
		'compare two': `/compare?what=requests&a=${one}&b=${other}`,
		'compare times': `/compare?${times}`,
		doctor: '/doctor',
		'no such page': '/nothing',
	};
}

/* `problems` are those that the page told of since the last one. */
export async function assertWhole({ page, problems }, url) {
	await show(page, url);
	assert.deepEqual(await page.locator('.state-error').allTextContents(), []);
	assert.deepEqual(problems.splice(0), []);
	assert.deepEqual(await page.evaluate(layoutProblems), []);
	assert.deepEqual(await accessibilityProblems(page), []);
}
