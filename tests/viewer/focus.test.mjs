/* What had the focus keeps it, or gives it to what stands in its place: nobody begins at the top again. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';
import { eventually } from './trace_view.mjs';

let collector;
let browser;
let opened;
let requests;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(250, 40));
	({ requests } = await collector.ask('/api/v1/requests', { q: 'txn:/cart', order: 'slowest', limit: 1000 }));
	browser = await startBrowser();
	opened = await openPage(browser, collector);
	opened.page.setDefaultTimeout(6000);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* What has the focus: its element, and what is read of it. */
const focused = (page) => page.evaluate(() => `${document.activeElement.localName} ${(document.activeElement.getAttribute('aria-label') ?? document.activeElement.textContent).trim()}`);
const has = (page, wanted) => eventually(async () => assert.match(await focused(page), wanted));

async function press(place) {
	await place.focus();
	await place.press('Enter');
}

test('what is chosen among several keeps the focus', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	for (const name of ['Slowest', 'Newest']) {
		await press(page.getByRole('button', { name }));
		await settled(page);
		assert.equal(await focused(page), `button ${name}`);
		assert.equal(await page.getByRole('button', { name }).getAttribute('aria-pressed'), 'true');
	}
	await show(page, `${collector.url}/compare`);
	for (const name of ['Two times', 'Two requests']) {
		await press(page.getByRole('button', { name }));
		await settled(page);
		assert.equal(await focused(page), `button ${name}`);
	}
});

test('another page has the focus at its heading', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions`);
	assert.equal(await page.evaluate(() => document.activeElement.localName), 'body');
	await press(page.getByRole('navigation').getByRole('link', { name: 'Errors' }));
	await has(page, /^h1 Errors/);
	await page.keyboard.press('g');
	await page.keyboard.press('t');
	await has(page, /^h1 Transactions/);
	await settled(page);
	await press(page.getByRole('link', { name: '/cart' }));
	await has(page, /^h1 \/cart/);
	await settled(page);
	assert.equal(await focused(page), 'h1 /cart');
	// Whose heading comes with the answer.
	await press(page.getByRole('link', { name: 'The slowest request' }));
	await page.locator('.request-head').waitFor();
	await has(page, /^h1 .*\/cart/);
	await page.keyboard.press('ArrowDown');
	await page.waitForFunction(() => new URL(location.href).searchParams.get('span'));
	await page.goBack();
	await has(page, /^h1 \/cart/);
});

test('"Show more" keeps the focus until there is no more, and then the first of the last rows has it', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const rows = page.locator('tbody tr');
	for (let before = 100; ; before = await rows.count()) {
		assert.equal(await rows.count(), before);
		const more = page.getByRole('button', { name: /^Show more/ });
		await press(more);
		await page.waitForFunction((count) => document.querySelectorAll('tbody tr').length > count, before);
		if ((await more.count()) === 0) {
			const first = await rows.nth(before).locator('a').first().getAttribute('href');
			assert.equal(await page.evaluate(() => document.activeElement.getAttribute('href')), first);
			break;
		}
		assert.match(await focused(page), /^button Show more/);
	}
});

test('a box of the flame graph of all that is opened has the focus', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fcart`);
	await press(page.locator('.icicle-box', { hasText: 'Cart::items' }));
	assert.match(await focused(page), /^button Cart::items/);
	await press(page.locator('.icicle-path button').first());
	assert.match(await focused(page), /^button main/);
});

test('what calls what is chosen can be chosen with the keyboard, step by step', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/request?id=${requests[0].id}`);
	await page.keyboard.press('ArrowDown');
	const way = page.locator('.details .way button');
	await way.first().waitFor();
	await press(way.first());
	await eventually(async () => assert.equal(await page.evaluate(() => document.activeElement.closest('.details') !== null), true));
});

test('trying again leads to what then is there', async () => {
	const { page } = opened;
	await page.route('**/api/v1/top?*', (route) => route.abort());
	await show(page, `${collector.url}/transactions`);
	const again = page.getByRole('button', { name: 'Try again' });
	await press(again);
	await settled(page);
	assert.equal(await focused(page), 'button Try again');
	await page.unroute('**/api/v1/top?*');
	await press(again);
	await page.locator('tbody tr').first().waitFor();
	assert.equal(await page.evaluate(() => document.activeElement.matches('.panel') && document.activeElement.querySelector('table') !== null), true);
	await page.route('**/api/v1/request?*', (route) => route.abort());
	await show(page, `${collector.url}/request?id=${requests[0].id}`);
	await page.unroute('**/api/v1/request?*');
	await press(again);
	await page.locator('.request-head').waitFor();
	assert.equal(await page.evaluate(() => document.activeElement.matches('main *')), true);
	opened.problems.length = 0; // The browser notes the failures itself.
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
