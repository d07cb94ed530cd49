/* Addresses that nobody should have written: each page says what is wrong with them. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';

let collector;
let browser;
let opened;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(20, 5));
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* The browser notes by itself what the collector refuses. */
const ownProblems = () => opened.problems.splice(0).filter((each) => !each.includes('status of 400'));

for (const text of ['abc', '90min', '99999999999999999']) {
	test(`a time range of ${text} is named, and what is wrong with it said`, async () => {
		const { page } = opened;
		for (const path of ['/', '/transactions', '/queries', '/map', '/search', '/compare?what=windows']) {
			for (const name of ['from', 'to']) {
				await show(page, `${collector.url}${path}${path.includes('?') ? '&' : '?'}${name}=${text}`);
				const range = page.getByLabel('Time range', { exact: true });
				assert.ok((await range.locator('option').first().textContent()).includes(`"${text}"`), `${path} ${name}`);
				assert.notEqual((await page.locator('main').innerText()).trim(), '', `${path} ${name}`);
				assert.deepEqual(ownProblems(), [], `${path} ${name}`);
			}
		}
		await page.goto(`${collector.url}/transactions?from=${text}`);
		assert.match(await page.locator('.state-error').textContent(), new RegExp(`'${text}' is`));
		await page.getByLabel('Time range', { exact: true }).selectOption('1h');
		await settled(page);
		assert.ok(await page.locator('tbody tr').count());
		ownProblems();
	});
}

test('a page of one thing says where its address names none', async () => {
	const { page } = opened;
	for (const [path, text, way] of [['/request', 'names no request', '/search'], ['/trace', 'names no trace', '/search'], ['/transaction', 'names no transaction', '/transactions']]) {
		await show(page, collector.url + path);
		assert.match(await page.locator('main').innerText(), new RegExp(text), path);
		assert.equal(await page.locator('main table, main .figure').count(), 0, path);
		assert.equal(await page.locator('main a').getAttribute('href'), way);
	}
	const { requests } = await collector.ask('/api/v1/requests', { limit: 1 });
	await show(page, `${collector.url}/request?id=${requests[0].id}`);
	await page.goto(`${collector.url}/request`);
	await settled(page);
	await page.goBack();
	await page.locator('.request-head').waitFor();
	assert.deepEqual(ownProblems(), []);
});
