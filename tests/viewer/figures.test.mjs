/* What the pages show is what the interface answers, and filters and links hold it. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';

let collector;
let browser;
let opened;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(600, 50));
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* Recomputed from every single request. */
async function allRequests(parameters = {}) {
	return (await collector.ask('/api/v1/requests', { from: '1h', limit: 10000, ...parameters })).requests;
}

function percentile(values, share) {
	const sorted = [...values].sort((one, other) => one - other);
	return sorted[Math.max(0, Math.ceil(sorted.length * share) - 1)];
}

/* `1.4 s` as milliseconds. */
function milliseconds(text) {
	const [, number, unit] = /^([\d.,]+) (ms|s)$/.exec(text) ?? assert.fail(`${text} is no duration`);
	return Number(number.replaceAll(',', '')) * (unit === 's' ? 1000 : 1);
}

/* Within 1 % and half a millisecond of the exact one, and as far as it was rounded. */
function assertDuration(text, exact) {
	assert.ok(Math.abs(milliseconds(text) - exact) <= exact * 0.02 + 1, `${text} is not ${exact} ms`);
}

async function figuresOf(scope) {
	return Object.fromEntries(await scope.locator('.figure').evaluateAll((list) => list.map((each) => [each.querySelector('dt').textContent, each.querySelector('dd').textContent])));
}

test('the overview tells of each application what its requests tell', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/`);
	const requests = await allRequests();
	const names = new Set(requests.map((each) => each.application));
	assert.equal(await page.locator('.application').count(), names.size);
	for (const name of names) {
		const own = requests.filter((each) => each.application === name);
		const shown = await figuresOf(page.locator(`.application[aria-label="${name}"]`));
		assert.equal(shown.Requests, own.length.toLocaleString('en-US'));
		const durations = own.map((each) => each.duration_ms);
		assertDuration(shown.p50, percentile(durations, 0.5));
		assertDuration(shown.p95, percentile(durations, 0.95));
		assertDuration(shown.p99, percentile(durations, 0.99));
		const failed = (own.filter((each) => each.failed).length / own.length) * 100;
		assert.ok(Math.abs(parseFloat(shown.Errors) - failed) < 0.1, `${shown.Errors} is not ${failed}`);
	}
});

test('the overview leads to the request that would gain most', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/`);
	const requests = await allRequests({ q: 'has:verdict' });
	const sums = new Map();
	for (const each of requests) {
		const key = JSON.stringify([each.application, each.name, each.findings[0]]);
		sums.set(key, (sums.get(key) ?? 0) + each.gain_ms);
	}
	const [[best]] = [...sums].sort((one, other) => other[1] - one[1]);
	const first = page.locator('.finding').first();
	assert.ok((await first.textContent()).includes(JSON.parse(best)[1]));
	const id = new URL(await first.locator('.finding-sentence a').getAttribute('href'), collector.url).searchParams.get('id');
	assert.ok(requests.some((each) => each.id === id && each.gain_ms > 0));
});

test('marks stand on the lines and lead to a comparison', async () => {
	const { page } = opened;
	await collector.tell('/api/v1/mark', { text: 'release <b>9</b>', time: String(Date.now() - 25 * 60000) });
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fcart`);
	assert.match(await page.locator('.marks .mark-text').textContent(), /release <b>9<\/b>/);
	await page.locator('.marks a').click();
	await settled(page);
	assert.equal(new URL(page.url()).pathname, '/compare');
	assert.ok(await page.locator('text=Transactions').count());
});

test('transactions sort by every column, both ways', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions`);
	const { transactions } = await collector.ask('/api/v1/top', { from: '1h', limit: 500 });
	const names = () => page.locator('tbody tr .main-cell a').allTextContents();
	for (const [title, member] of [['Calls', 'requests'], ['p95', 'p95_ms'], ['Queries', 'queries_per_request']]) {
		const expected = transactions.map((each) => each[member]).sort((one, other) => other - one);
		const byName = new Map(transactions.map((each) => [each.transaction, each[member]]));
		await page.getByRole('button', { name: title, exact: true }).click();
		assert.deepEqual((await names()).map((name) => byName.get(name)), expected, title);
		await page.getByRole('button', { name: title, exact: true }).click();
		assert.deepEqual((await names()).map((name) => byName.get(name)), [...expected].reverse(), title);
	}
	assert.equal(new URL(page.url()).searchParams.get('sort'), '-queries');
	await page.reload();
	await settled(page);
	const least = transactions.map((each) => each.queries_per_request).sort((one, other) => one - other)[0];
	const byName = new Map(transactions.map((each) => [each.transaction, each.queries_per_request]));
	assert.equal(byName.get((await names())[0]), least);
});

test('a query and a host narrow the transactions', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions?q=${encodeURIComponent('>200ms')}&host=shop.example`);
	const expected = new Map();
	for (const each of (await allRequests()).filter((one) => one.duration_ms > 200 && one.host === 'shop.example')) {
		expected.set(each.name, (expected.get(each.name) ?? 0) + 1);
	}
	const rows = await page.locator('tbody tr').evaluateAll((list) => list.map((row) => [row.querySelector('.main-cell').textContent, Number(row.querySelector('[data-title=Calls]').textContent)]));
	assert.deepEqual(new Map(rows), expected);
});

test('the histogram holds every request and its bars lead to them', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fcart`);
	const own = await allRequests({ q: 'app:Shop txn:"/cart"' });
	const bars = await page.locator('a.histogram-column').evaluateAll((list) => list.map((each) => [each.title, each.getAttribute('href')]));
	const counts = bars.map(([title]) => Number(/: ([\d,]+) request/.exec(title)[1].replaceAll(',', '')));
	assert.equal(counts.reduce((sum, each) => sum + each, 0), own.length);
	const largest = counts.indexOf(Math.max(...counts));
	const query = new URL(bars[largest][1], collector.url).searchParams.get('q');
	const [, least, most] = /duration:>=(\d+)ms duration:<(\d+)ms/.exec(query).map(Number);
	const within = own.filter((each) => each.duration_ms >= least && each.duration_ms < most);
	await page.locator('a.histogram-column').nth(largest).click();
	await settled(page);
	const status = await page.getByRole('status').textContent();
	// A bucket's edge is known to within 1 %, the list is exact.
	assert.equal(parseInt(status.replaceAll(',', ''), 10), within.length);
	assert.ok(Math.abs(within.length - counts[largest]) <= own.length * 0.05);
});

test('filters stay from page to page and in every link', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/?from=3h&app=Shop&host=shop.example`);
	for (const name of ['Transactions', 'Queries', 'Errors', 'Map', 'Search', 'Overview']) {
		await page.getByRole('navigation').getByRole('link', { name }).click();
		await settled(page);
		const parameters = new URL(page.url()).searchParams;
		assert.equal(parameters.get('from'), '3h', name);
		assert.equal(parameters.get('app'), 'Shop', name);
		assert.equal(parameters.get('host'), 'shop.example', name);
	}
	await page.getByLabel('Application', { exact: true }).selectOption('Stock');
	await settled(page);
	assert.deepEqual(await page.locator('.application h3').allTextContents(), []);
	await page.getByLabel('Host', { exact: true }).selectOption('');
	await settled(page);
	assert.deepEqual(await page.locator('.application h3').allTextContents(), ['Stock']);
	await page.goBack();
	await page.goBack();
	await settled(page);
	assert.equal(new URL(page.url()).searchParams.get('app'), 'Shop');
});

test('a statement opens to where it comes from', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/queries`);
	const { statements } = await collector.ask('/api/v1/queries', { from: '1h' });
	assert.equal(await page.locator('tbody > tr[data-row]').count(), statements.length);
	await page.locator('.opener').first().click();
	const details = page.locator('.details-row');
	assert.equal(await details.locator('pre').textContent(), statements[0].statement);
	assert.ok((await details.textContent()).includes(statements[0].callers[0].name));
	await details.getByText('Requests with it').click();
	await settled(page);
	assert.ok(parseInt(await page.getByRole('status').textContent(), 10) > 0);
	assert.ok((await page.locator('tbody tr .main-cell').first().textContent()).includes('/cart'));
});

test('the map joins the services by the hosts that they are asked under', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/map`);
	const { hosts } = await collector.ask('/api/v1/calls', { from: '1h' });
	const rows = await page.locator('tbody tr').evaluateAll((list) => list.map((row) => [...row.querySelectorAll('td')].slice(0, 3).map((cell) => cell.textContent)));
	const calls = (from, host) => hosts.filter((each) => each.application === from && each.host === host).reduce((sum, each) => sum + each.count, 0);
	for (const [from, to, host] of [['Shop', 'Stock', 'stock.example'], ['Shop', 'Prices', 'prices.example'], ['Prices', 'rates.example', 'rates.example']]) {
		const row = rows.find((each) => each[0] === from && each[1] === to);
		assert.ok(row, `${from} calls ${to}`);
		assert.equal(Number(row[2].replaceAll(',', '')), calls(from, host));
	}
});

test('a host narrows statements and calls to what its stored requests did', async () => {
	const { page } = opened;
	for (const [path, host, isIn] of [['queries', 'stock.example', (span) => span.layer === 'database'], ['external', 'prices.example', (span) => span.layer === 'http']]) {
		const requests = await allRequests({ q: `host:"${host}"` });
		let [count, total] = [0, 0];
		for (const { id } of requests) {
			const { spans } = await collector.ask('/api/v1/request', { id });
			for (const span of spans.filter(isIn)) {
				count++;
				total += span.duration_ms;
			}
		}
		await show(page, `${collector.url}/${path}?host=${host}`);
		assert.ok(requests.length > 0 && count > 0);
		assert.match(await page.locator('main').textContent(), new RegExp(`Of ${requests.length} stored requests of this host`));
		assert.equal(await page.locator('tbody tr').count(), 1);
		assert.equal(await page.locator('td[data-title=Times]').textContent(), String(count));
		assertDuration(await page.locator('td[data-title=Mean]').textContent(), total / count);
		await page.locator('.opener').first().click();
		assert.match(await page.locator('.details-row').textContent(), path === 'queries' ? /Frommain/ : /FromRates::today/);
	}
});

test('where figures are of all hosts the page says so, and leads to those of one', async () => {
	const { page } = opened;
	for (const path of ['/?', '/errors?', '/map?', '/transaction?app=Shop&txn=%2Fcheckout&']) {
		await show(page, `${collector.url}${path}host=shop.example`);
		assert.ok((await page.getByText('Of all hosts').count()) > 0, path);
		await show(page, `${collector.url}${path}`);
		assert.equal(await page.getByText('Of all hosts').count(), 0, path);
	}
	await show(page, `${collector.url}/errors?host=shop.example`);
	await page.getByRole('link', { name: 'Requests of this host with errors' }).click();
	await settled(page);
	const expected = await allRequests({ q: 'has:error host:"shop.example"' });
	assert.equal(parseInt(await page.getByRole('status').textContent(), 10), expected.length);
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
