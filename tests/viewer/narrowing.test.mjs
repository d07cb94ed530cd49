/*
 * Compare tells two times apart by host and by application, Live what is wrong with a query, and long
 * names of applications break no page.
 */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { Requests } from './shop.mjs';

const MINUTE = 60000;
const LONG = 'com.example.checkout-service.production.eu-west-1';
const LONGEST = 'inventory-'.repeat(16);

let collector;
let browser;
const now = Date.now();

const FAILURE = { if: 1, ei: [{ err_clz: 'OutOfStock', str: 'no more', filename: '/srv/Stock.php', linenumber: 7, level: 'Error' }] };

function requests() {
	const all = new Requests(3);
	const failing = (at, application) => all.begin(at, { application, name: '/e' }).inside('Stock::reserve', (r) => r.code(3), FAILURE).end();
	failing(now - 40 * MINUTE, 'Old');
	failing(now - 10 * MINUTE, 'New');
	for (const [host, ms, count] of [['a.example', 20, 3], ['b.example', 70, 5]]) {
		for (let i = 0; i < count; i++) {
			for (const at of [now - 40 * MINUTE, now - 10 * MINUTE]) {
				all.begin(at + i, { application: 'Shop', name: '/p', http_host: host }).code(ms).end();
			}
		}
	}
	for (const application of [LONG, LONGEST]) {
		const r = all.begin(now - 5 * MINUTE, { application, name: '/order', http_host: 'long.example' });
		const caller = r.call('http://stock.example/left', 0);
		all.begin(r.now + 1, { application: `${application}-stock`, name: '/left', trace: r.trace, caller, http_host: 'stock.example' }).code(10).end();
		r.wait(20).end();
	}
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(requests());
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

const TIMES = new URLSearchParams({ what: 'windows', from1: now - 50 * MINUTE, to1: now - 20 * MINUTE, from2: now - 20 * MINUTE, to2: now });

test('two times of one host are told of its requests', async () => {
	const { page, close } = await openPage(browser, collector);
	await show(page, `${collector.url}/compare?${TIMES}&host=a.example`);
	const text = await page.locator('main').textContent();
	assert.match(text, /Before: .*, 3 requests, p95 20 ms\. After: .*, 3 requests, p95 20 ms/);
	await show(page, `${collector.url}/compare?${TIMES}&host=a.example&app=New`);
	await show(page, `${collector.url}/compare?${TIMES}`);
	assert.match(await page.locator('main').textContent(), /Before: .*, 9 requests/);
	await close();
});

test('an error that another application had before is new in this one', async () => {
	const { page, close } = await openPage(browser, collector);
	await show(page, `${collector.url}/compare?${TIMES}`);
	const rows = page.getByRole('table', { name: 'Errors that are new' }).locator('tbody tr');
	assert.equal(await rows.count(), 1);
	assert.match(await rows.first().textContent(), /OutOfStock.*New/);
	await close();
});

test('live says what is wrong with a query', async () => {
	const { page, close } = await openPage(browser, collector);
	await show(page, `${collector.url}/live?q=${encodeURIComponent('foo:bar')}`);
	await page.getByText("unknown field 'foo'").first().waitFor();
	await close();
});

for (const width of [1280, 390]) {
	test(`long names of applications break no page, ${width} wide`, async () => {
		const { page, close } = await openPage(browser, collector, { viewport: { width, height: 900 } });
		for (const application of [LONG, LONGEST]) {
			const { requests: found } = await collector.ask('/api/v1/requests', { q: `app:"${application}"` });
			for (const path of ['/', '/transactions', '/map', '/errors', `/trace?id=${found[0].trace_id}`, `/request?id=${found[0].id}`]) {
				await show(page, collector.url + path);
				assert.deepEqual(await page.evaluate(layoutProblems), [], `${application.length} letters, ${path}`);
			}
		}
		await close();
	});
}
