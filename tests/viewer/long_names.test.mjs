/* Names as long as frameworks give them, without a place to break at, make no page too wide. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { Requests } from './shop.mjs';

const METHOD = 'App\\Http\\Controllers\\Api\\V1\\Customer\\Orders\\OrderItemShippingController@recalculateShippingCosts';
const EXCEPTION = 'App\\Exceptions\\Domain\\Customer\\Orders\\OrderItemShippingRecalculationFailedException';
const APPLICATION = 'inventory-'.repeat(17);
const FILE = `/srv/${METHOD.replaceAll('\\', '/')}.php`;
const MINUTE = 60000;

const KINDS = [['Shop', METHOD], [APPLICATION, METHOD.repeat(5)]];

let collector;
let browser;
const now = Date.now();

function requests() {
	const all = new Requests(3);
	for (const [application, name] of KINDS) {
		for (const [ago, ms] of [[40, 20], [10, 60]]) {
			const r = all.begin(now - ago * MINUTE, { application, name, httpcode: 500, http_host: 'shop.example' });
			r.inside(METHOD, () => r.statement(`SELECT 1 FROM ${'orders_'.repeat(20)}`, ms).code(ms), {
				if: 1, ei: [{ err_clz: EXCEPTION, str: METHOD, filename: FILE, linenumber: 7, level: 'Error' }], mst: [[EXCEPTION, METHOD, FILE, 3]],
			});
			const caller = r.call(`http://${'stock-'.repeat(9)}left.example/left`, 0);
			all.begin(r.now + 1, { application: `${application}-stock`, name, trace: r.trace, caller, http_host: 'stock.example' }).code(10).end();
			r.wait(20).end();
		}
	}
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(requests());
	await collector.gathered('/api/v1/calls', 'hosts', 2);
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

async function assertWhole(page, what) {
	assert.deepEqual(await page.evaluate(layoutProblems), [], what);
}

const LISTS = ['queries', 'errors', 'external'];

for (const width of [1280, 390]) {
	test(`long names break no page, ${width} wide`, { timeout: 120000 }, async () => {
		const { page, problems, close } = await openPage(browser, collector, { viewport: { width, height: 900 } });
		for (const path of ['', 'transactions', 'search', 'map', `compare?${new URLSearchParams({ what: 'windows', from1: now - 50 * MINUTE, to1: now - 20 * MINUTE, from2: now - 20 * MINUTE, to2: now })}`]) {
			await show(page, `${collector.url}/${path}`);
			await assertWhole(page, path);
		}
		for (const list of LISTS) {
			await show(page, `${collector.url}/${list}`);
			for (const opener of await page.locator('.opener').all()) {
				await opener.click();
			}
			await settled(page);
			await assertWhole(page, `${list}, opened`);
		}
		await close();
		assert.deepEqual(problems, []);
	});

	for (const [application, name] of KINDS) {
		test(`a transaction of ${name.length} letters breaks no page, ${width} wide`, { timeout: 120000 }, async () => {
			const { page, close } = await openPage(browser, collector, { viewport: { width, height: 900 } });
			const { requests: found } = await collector.ask('/api/v1/requests', { q: `app:"${application}"`, from: '1h' });
			const [one, other] = found.map((each) => each.id);
			const { transactions } = await collector.ask('/api/v1/top', { app: application, from: '1h' });
			assert.equal(transactions.length, 1);
			// What is longer than the collector keeps has lost its end.
			assert.ok(name.startsWith(transactions[0].transaction.slice(0, 90)));
			const own = new URLSearchParams({ app: application, txn: transactions[0].transaction });
			for (const path of [`transaction?${own}`, `trace?id=${found[0].trace_id}`, `request?id=${one}`, `request?id=${one}&tab=errors`, `compare?what=requests&a=${one}&b=${other}`, `compare?what=typical&a=${one}`, ...LISTS.map((list) => `${list}?${own}`)]) {
				await show(page, `${collector.url}/${path}`);
				for (const closed of await page.locator('.error-item summary').all()) {
					await closed.click();
				}
				await assertWhole(page, path.slice(0, 80));
			}
			await close();
		});
	}
}
