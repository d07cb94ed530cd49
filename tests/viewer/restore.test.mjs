/* A link, and the browser's way back, have a page as it was left. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { again, Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';

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
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

const firstTexts = (table) => table.locator('tbody tr[data-row]').evaluateAll((rows) => rows.slice(0, 8).map((row) => row.textContent));

test('every table is sorted as it was', async () => {
	const { page } = opened;
	const now = Date.now();
	const times = new URLSearchParams({ what: 'windows', from1: now - 24e5, to1: now - 12e5, from2: now - 12e5, to2: now });
	const tables = [
		['/search', 'Requests', 'Duration'],
		['/search?order=slowest', 'Requests', 'Queries'],
		// Rates until now would be others a moment later.
		[`/map?from=${now - 36e5}&to=${now}`, 'Calls', 'From'],
		[`/compare?what=requests&a=${requests.at(-1).id}&b=${requests[0].id}`, 'What differs', 'Call'],
		[`/compare?${times}`, 'Transactions before and after', 'Rate'],
		[`/compare?${times}`, 'Statements before and after', 'Mean'],
		['/transaction?app=Shop&txn=%2Fcart', 'Slowest requests', 'Begin'],
		['/queries?host=shop.example', 'Statement', 'Times'],
	];
	for (const [path, caption, column] of tables) {
		await show(page, collector.url + path);
		const table = page.locator('.table', { has: page.getByRole('table', { name: caption, exact: true }) });
		const heading = table.getByRole('button', { name: column, exact: true });
		const usual = await firstTexts(table);
		await heading.click();
		await heading.click();
		const sorted = await firstTexts(table);
		assert.ok(usual.length > 0);
		await again(page, collector);
		assert.deepEqual(await firstTexts(table), sorted, `${path} ${caption}`);
		assert.equal(await table.locator('th[aria-sort=ascending], th[aria-sort=descending]').textContent().then((text) => text.replace(/ .$/, '')), column, path);
	}
});

test('rows that were opened are opened again', async () => {
	const { page } = opened;
	for (const path of ['/queries', '/errors', '/external', '/queries?host=shop.example', '/transaction?app=Shop&txn=%2Forder']) {
		await show(page, collector.url + path);
		const openers = page.locator('.opener');
		const last = (await openers.count()) - 1;
		await openers.nth(last).click();
		await settled(page);
		const details = await page.locator('.details-row').innerText();
		await again(page, collector);
		assert.equal(await page.locator('.details-row').count(), 1, path);
		assert.equal(await page.locator('.details-row').innerText(), details, path);
		assert.equal(await openers.nth(last).getAttribute('aria-expanded'), 'true', path);
		await openers.nth(last).click();
		await again(page, collector);
		assert.equal(await page.locator('.details-row').count(), 0, path);
	}
});

test('the box of the flame graph of all that was opened is opened again', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fcart`);
	await page.locator('.icicle-box', { hasText: 'Cart::items' }).click();
	const path = await page.locator('.icicle-path').textContent();
	assert.match(path, /^main › Cart::items/);
	await again(page, collector);
	assert.equal(await page.locator('.icicle-path').textContent(), path);
	await page.locator('.icicle-path button').first().click();
	await again(page, collector);
	assert.match(await page.locator('.icicle-path').textContent(), /^main\d/);
});

test('the way back leads to where a page was scrolled to', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const place = () => page.evaluate(() => Math.round(scrollY));
	const isAt = (y) => page.waitForFunction((there) => Math.abs(scrollY - there) < 2, y);
	await page.evaluate(() => scrollTo(0, 1500));
	const left = await place();
	assert.ok(left > 1000);
	await page.evaluate(() => [...document.querySelectorAll('tbody tr')].find((row) => row.getBoundingClientRect().top > 300).querySelector('a').click());
	await page.locator('.request-head').waitFor();
	assert.equal(await place(), 0);
	await page.goBack();
	await isAt(left);
	await settled(page);
	assert.equal(await place(), left);
	await page.waitForTimeout(300);
	await page.reload();
	await isAt(left);
	await page.goForward();
	await page.locator('.request-head').waitFor();
	assert.equal(await place(), 0);
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
