/* Every page, at both widths and in both themes: nothing fails, nothing is cut off, everybody can use it. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { shopRequests } from './shop.mjs';

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

async function pagePaths() {
	const { requests } = await collector.ask('/api/v1/requests', { order: 'slowest', limit: 2 });
	const [one, other] = requests.map((each) => each.id);
	const now = Date.now();
	const times = new URLSearchParams({ what: 'windows', from1: now - 3e6, to1: now - 12e5, from2: now - 12e5, to2: now });
	return {
		overview: '/',
		transactions: '/transactions',
		transaction: '/transaction?app=Shop&txn=%2Fcart',
		queries: '/queries',
		errors: '/errors',
		external: '/external',
		'queries of a host': '/queries?host=shop.example',
		'external of a host': '/external?host=shop.example',
		'errors of a host': '/errors?host=shop.example',
		'transaction of a host': '/transaction?app=Shop&txn=%2Fcart&host=shop.example',
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

for (const [width, height] of [[1280, 900], [390, 800]]) {
	for (const colorScheme of ['light', 'dark']) {
		test(`pages are whole at ${width} pixels in the ${colorScheme} theme`, { timeout: 240000 }, async (context) => {
			const { page, problems, close } = await openPage(browser, collector, { viewport: { width, height }, colorScheme });
			for (const [name, path] of Object.entries(await pagePaths())) {
				await context.test(name, async () => {
					await show(page, collector.url + path);
					assert.deepEqual(await page.locator('.state-error').allTextContents(), []);
					assert.deepEqual(problems.splice(0), []);
					assert.deepEqual(await page.evaluate(layoutProblems), []);
					assert.deepEqual(await accessibilityProblems(page), []);
				});
			}
			await close();
		});
	}
}

/* Boxes that lie over a page, by what opens them. */
const DIALOGS = {
	keys: (page) => page.keyboard.press('?'),
	about: (page) => page.getByRole('button', { name: 'About' }).click(),
	'time range': (page) => page.getByRole('combobox', { name: 'Time range' }).selectOption('custom'),
	language: (page) => page.getByRole('button', { name: 'Language' }).click(),
};

for (const [width, height] of [[1280, 900], [390, 800]]) {
	for (const colorScheme of ['light', 'dark']) {
		test(`everybody can use the boxes over a page at ${width} pixels in the ${colorScheme} theme`, { timeout: 120000 }, async () => {
			const { page, problems, close } = await openPage(browser, collector, { viewport: { width, height }, colorScheme });
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
