/* The page of a transaction whose name several applications have. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { Requests } from './shop.mjs';
import { SCREENS, screenName } from './whole.mjs';

/* How many of each application, how long each takes, and how many of them fail. */
const SAME = { Checkout: [6, 203, 3], Stock: [14, 40, 1] };

let collector;
let browser;
let opened;

before(async () => {
	const all = new Requests(4);
	const now = Date.now();
	for (const [application, [count, ms, failed]] of Object.entries(SAME)) {
		for (let i = 0; i < count; i++) {
			all.begin(now - 5000 - i * 1000, { application, name: '/health', httpcode: i < failed ? 500 : 200 }).code(ms).end();
		}
	}
	all.begin(now - 9000, { application: 'Checkout', name: '/pay' }).code(400).end();
	all.begin(now - 8000, { application: 'Nameless', name: '' }).code(30).end();
	all.begin(now - 7000, { application: 'Nameless', name: '/named' }).code(30).end();
	collector = await Collector.start();
	await collector.take(all.lines);
	await collector.gathered('/api/v1/top', 'transactions', 5);
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

const figuresOf = (page) => page.locator('.figure').evaluateAll((list) => Object.fromEntries(list.map((each) => [each.querySelector('dt').textContent, each.querySelector('dd').textContent])));

async function listed(page, name) {
	await page.getByRole('link', { name, exact: true }).click();
	await page.getByRole('table', { name: 'Requests' }).waitFor();
	return page.locator('tbody tr').count();
}

test('figures of a name that several applications have are those of all of them', async () => {
	const { page } = opened;
	const { total, transactions } = await collector.ask('/api/v1/top', { from: '1h', txn: '/health' });
	assert.deepEqual([total.requests, total.failed, transactions.length], [20, 4, 2]);
	const address = `${collector.url}/transaction?txn=%2Fhealth`;
	await show(page, address);
	const shown = await figuresOf(page);
	assert.equal(shown.Calls, '20');
	assert.match(shown.Errors, /^20 %$/);
	assert.equal(shown['Share of all time'], `${(total.time_share * 100).toFixed(1)} %`);
	assert.equal(shown.p50, `${total.p50_ms} ms`);
	assert.match(await page.locator('.whose').textContent(), /^Of 2 applications .* together/);
	assert.equal(await listed(page, 'All requests'), 20);
	await show(page, address);
	assert.equal(await listed(page, 'Failed ones'), 4);
});

test('each of these applications has its own figures, and a link to them', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transaction?txn=%2Fhealth`);
	for (const [application, [count, ms]] of Object.entries(SAME)) {
		const row = page.getByRole('table', { name: 'Applications' }).locator('tbody tr', { hasText: application });
		assert.equal(await row.locator('[data-title=Calls]').textContent(), String(count));
		assert.equal(await row.locator('[data-title=p50]').textContent(), `${ms} ms`);
		await row.getByRole('link', { name: application }).click();
		await page.waitForURL((url) => url.searchParams.get('app') === application);
		await page.locator('.whose').waitFor({ state: 'detached' });
		assert.equal((await figuresOf(page)).Calls, String(count));
		await page.goBack();
		await page.locator('.whose').waitFor();
	}
});

test('a name that one application has is said to be of it', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transaction?txn=%2Fpay`);
	assert.match(await page.locator('.whose').textContent(), /^Of Checkout, the only/);
	assert.equal((await figuresOf(page)).Calls, '1');
	assert.equal(await page.getByRole('table', { name: 'Applications' }).count(), 0);
	assert.equal(await listed(page, 'All requests'), 1);
});

test('a transaction without a name leads to its requests', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions?app=Nameless`);
	await page.getByRole('link', { name: '(no name)' }).click();
	await page.getByRole('table', { name: 'Requests' }).waitFor();
	assert.equal(await page.locator('tbody tr').count(), 1);
});

for (const screen of SCREENS) {
	test(`several applications fit on ${screenName(screen)}`, async () => {
		const { page, problems, close } = await openPage(browser, collector, screen);
		await show(page, `${collector.url}/transaction?txn=%2Fhealth`);
		await page.locator('.whose').waitFor();
		assert.deepEqual(await page.evaluate(layoutProblems), []);
		assert.deepEqual(problems, []);
		await close();
	});
}

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
