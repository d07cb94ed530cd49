/* Every page, at both widths and in both themes: nothing fails, nothing is cut off, everybody can use it. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { shopRequests } from './shop.mjs';
import { assertWhole, pagePaths, screenName, SCREENS } from './whole.mjs';

let collector;
let browser;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(700, 50));
	await collector.tell('/api/v1/mark', { text: 'release 2.1', time: String(Date.now() - 20 * 60000) });
	await collector.tell('/api/v1/mark', { text: 'a release of which much is to be said '.repeat(5).trim(), time: String(Date.now() - 12 * 60000) });
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

for (const screen of SCREENS) {
	test(`pages are whole at ${screenName(screen)}`, { timeout: 240000 }, async (context) => {
		const opened = await openPage(browser, collector, screen);
		const { requests } = await collector.ask('/api/v1/requests', { order: 'slowest', limit: 2 });
		const site = { app: 'Shop', txn: '/cart', host: 'shop.example', requests: requests.map((each) => each.id) };
		for (const [name, path] of Object.entries(pagePaths(site))) {
			await context.test(name, () => assertWhole(opened, collector.url + path));
		}
		await opened.close();
	});
}

/* Boxes that lie over a page, by what opens them. */
const DIALOGS = {
	keys: (page) => page.keyboard.press('?'),
	about: (page) => page.getByRole('button', { name: 'About' }).click(),
	'time range': (page) => page.getByRole('combobox', { name: 'Time range' }).selectOption('custom'),
	language: (page) => page.getByRole('button', { name: 'Language' }).click(),
};

for (const screen of SCREENS) {
	test(`everybody can use the boxes over a page at ${screenName(screen)}`, { timeout: 120000 }, async () => {
		const { width, height } = screen.viewport;
		const { page, problems, close } = await openPage(browser, collector, screen);
		await show(page, `${collector.url}/search`);
		for (const [name, open] of Object.entries(DIALOGS)) {
			await open(page);
			const box = await page.locator('dialog[open]').boundingBox();
			assert.ok(box.x >= 0 && box.x + box.width <= width && box.y >= 0 && box.y + box.height <= height, name);
			assert.deepEqual(await accessibilityProblems(page), [], name);
			await page.keyboard.press('Escape');
			assert.equal(await page.locator('dialog[open]').count(), 0, name);
		}
		assert.deepEqual(problems, []);
		await close();
	});
}

test('what is opened in a row is whole, too', { timeout: 120000 }, async () => {
	const { page, problems, close } = await openPage(browser, collector);
	for (const path of ['/queries', '/errors', '/external']) {
		await show(page, collector.url + path);
		await page.locator('.opener').first().click();
		await settled(page);
		assert.equal(await page.locator('.details-row').count(), 1);
		assert.deepEqual(await page.evaluate(layoutProblems), []);
		assert.deepEqual(await accessibilityProblems(page), []);
	}
	assert.deepEqual(problems, []);
	await close();
});
