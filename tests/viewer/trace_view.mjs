/* What somebody who uses the page of a request sees and hears of it. */
import assert from 'node:assert/strict';

export const ROWS = '.waterfall-scroll:not(.flame-scroll) [role=treeitem]';

/* The rows as somebody hears them. */
export async function rows(page) {
	await page.waitForTimeout(250);
	return page.locator(ROWS).allTextContents();
}

export function active(page) {
	return page.evaluate(() => {
		const tree = [...document.querySelectorAll('[role=tree]')].find((each) => each.offsetParent !== null);
		return document.getElementById(tree?.getAttribute('aria-activedescendant') ?? '')?.textContent ?? '';
	});
}

/* Pages draw when they have time to: what is looked for comes, or the reason why not is told. */
export async function eventually(check) {
	const end = Date.now() + 10000;
	for (;;) {
		try {
			return await check();
		} catch (error) {
			if (!(error instanceof assert.AssertionError) || Date.now() > end) {
				throw error;
			}
			await new Promise((resolve) => setTimeout(resolve, 50));
		}
	}
}

export function heard(page, wanted) {
	return eventually(async () => assert.match(await active(page), wanted));
}

export function told(place, wanted) {
	return eventually(async () => assert.match(await place.textContent(), wanted));
}

export function own(page) {
	return Object.fromEntries(new URL(page.url()).searchParams);
}

export async function heldIn(page, name, value) {
	await page.waitForFunction(([key, wanted]) => (new URL(location.href).searchParams.get(key) ?? '') === wanted, [name, value]);
}

/* What is drawn now: the waterfall or the flame graph. */
export async function picture(page) {
	await page.evaluate(() => document.activeElement.blur());
	await page.mouse.move(0, 0);
	await page.waitForTimeout(250);
	return page.evaluate(() => [...document.querySelectorAll('.waterfall canvas')].find((each) => each.offsetParent !== null).toDataURL());
}
