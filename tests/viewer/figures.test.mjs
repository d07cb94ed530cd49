/* What the pages show is what the interface answers, and filters and links hold it. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';
import { assertDuration, assertFigure, assertRows, figure, percentile, rowsOf } from './shown_figures.mjs';

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

test('a host narrows what would gain most to what was said of its requests', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/?host=prices.example`);
	const requests = await allRequests({ q: 'has:verdict host:"prices.example"' });
	const gain = requests.reduce((sum, each) => sum + each.gain_ms, 0);
	assert.ok(gain > 0);
	const shown = await page.locator('.finding-gain b').allTextContents();
	const { findings } = await collector.ask('/api/v1/findings', { from: '1h', host: 'prices.example', limit: 100 });
	assert.equal(findings.reduce((sum, each) => sum + each.gain_ms, 0), gain);
	assert.equal(shown.length, Math.min(5, findings.length));
	shown.forEach((text, i) => assertFigure(text, findings[i].gain_ms || null, findings[i].sentence));
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
	const all = (await allRequests({ q: 'app:Shop txn:"/cart"' })).map((each) => each.duration_ms);
	const slower = `duration:>=${Math.floor(percentile(all, 0.5))}ms`;
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fcart&q=${encodeURIComponent(slower)}`);
	const own = await allRequests({ q: `app:Shop txn:"/cart" ${slower}` });
	assert.ok(own.length > 0 && own.length < all.length, 'the query narrows');
	for (const name of ['All requests', 'Failed ones']) {
		assert.ok(new URL(await page.getByRole('link', { name }).getAttribute('href'), collector.url).searchParams.get('q').includes(slower), name);
	}
	const bars = await page.locator('a.histogram-column').evaluateAll((list) => list.map((each) => [each.title, each.getAttribute('href')]));
	const counts = bars.map(([title]) => Number(/: ([\d,]+) request/.exec(title)[1].replaceAll(',', '')));
	assert.equal(counts.reduce((sum, each) => sum + each, 0), own.length);
	const largest = counts.indexOf(Math.max(...counts));
	const query = new URL(bars[largest][1], collector.url).searchParams.get('q');
	assert.ok(query.includes(slower));
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
		const finds = await page.locator('.details-row').getByRole('link', { name: 'Requests of this host with it' }).getAttribute('href');
		assert.match(new URL(finds, collector.url).searchParams.get('q'), path === 'queries' ? /^sql:/ : /^call:"rates\./);
		assert.match(await page.locator('.details-row').textContent(), path === 'queries' ? /Frommain/ : /FromRates::today/);
	}
});

test('where figures are of all hosts the page says so, and leads to those of one', async () => {
	const { page } = opened;
	for (const path of ['/errors?', '/map?', '/transaction?app=Shop&txn=%2Fcheckout&']) {
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

const DURATIONS = (row) => ({ p50: row.p50_ms, p95: row.p95_ms, p99: row.p99_ms });

/* Most time first, as the pages have them. */
const byTime = (rows) => [...rows].sort((one, other) => other.time_share - one.time_share);

test('every figure of every transaction is the interface\'s', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions`);
	const { transactions } = await collector.ask('/api/v1/top', { from: '1h', limit: 500 });
	const requests = await allRequests();
	const shown = await rowsOf(page);
	assertRows(
		shown,
		byTime(transactions),
		(row) => ({
			...DURATIONS(row), Time: row.time_share, Calls: row.requests, Rate: row.calls_per_minute, Errors: row.error_share,
			Apdex: row.apdex, Queries: row.queries_per_request, Database: row.database_ms, External: row.external_ms,
		}),
		(row) => row.transaction,
	);
	byTime(transactions).forEach((row, i) => {
		const own = requests.filter((each) => each.application === row.application && each.name === row.transaction);
		assertDuration(shown[i].p95, percentile(own.map((each) => each.duration_ms), 0.95));
	});
});

/* `least to most, at the end last` of a line, as it is said to those who do not see it. */
async function assertLine(scope, label, name, values, unit = '') {
	const text = await scope.getByRole('img', { name: new RegExp(`^${label}`) }).getAttribute('aria-label');
	const [, least, most, last] = new RegExp(`[.;] ${name}: (.*?) to (.*?), at the end ([^;]*)`).exec(text) ?? assert.fail(`${text} says nothing of ${name}`);
	const known = values.filter((each) => each !== null);
	for (const [said, exact] of [[least, Math.min(...known)], [most, Math.max(...known)], [last, known.at(-1)]]) {
		assertFigure(said + unit, exact, `${label}, ${name}`);
	}
}

test('the figures and lines of each application are the interface\'s', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/`);
	const { applications, step_ms: step } = await collector.ask('/api/v1/applications', { from: '1h' });
	for (const { application, points, ...row } of applications) {
		const scope = page.locator(`.application[aria-label="${application}"]`);
		const shown = await figuresOf(scope);
		for (const [name, value] of Object.entries({ ...DURATIONS(row), Requests: row.requests, Rate: row.calls_per_minute, Errors: row.error_share, Apdex: row.apdex })) {
			assertFigure(shown[name], value, `${application}, ${name}`);
		}
		// The last step may have begun between the two questions.
		const ended = points.filter((each) => each.count > 0);
		await assertLine(scope, 'Apdex', 'Apdex', ended.map((each) => each.apdex));
		for (const name of ['p50', 'p95', 'p99']) {
			await assertLine(scope, 'Durations', name, ended.map((each) => each[`${name}_ms`]));
		}
		await assertLine(scope, 'Share of failed requests', 'Errors', ended.map((each) => each.failed / each.count));
		// By whole steps: series.test.mjs has the others.
		const busiest = Math.max(...ended.map((each) => (each.count * 60000) / step));
		const text = await scope.getByRole('img', { name: /^Requests per minute/ }).getAttribute('aria-label');
		assertFigure(/ to ([^,]*),/.exec(text)[1], busiest, `${application}, requests per minute`);
	}
});

test('every figure of statements, errors and external hosts is the interface\'s', async () => {
	const { page } = opened;
	const { statements } = await collector.ask('/api/v1/queries', { from: '1h' });
	await show(page, `${collector.url}/queries`);
	assertRows(
		await rowsOf(page),
		byTime(statements),
		(row) => ({ Time: row.time_share, 'In all': row.total_ms, Times: row.count, Mean: row.total_ms / row.count, p95: row.p95_ms, Longest: row.longest_ms, Errors: row.error_share }),
		(row) => row.statement,
	);
	const { errors } = await collector.ask('/api/v1/errors', { from: '1h' });
	await show(page, `${collector.url}/errors`);
	const groups = [...errors].sort((one, other) => other.count - one.count);
	const shown = await rowsOf(page);
	assertRows(shown, groups, (row) => ({ Times: row.count, Requests: row.requests, Ended: row.fatal }), (row) => row.type);
	groups.forEach((row, i) => {
		assert.equal(Date.parse(shown[i].First), row.first_ms);
		assert.equal(Date.parse(shown[i].Last), row.last_ms);
	});
	const failing = (await allRequests({ q: 'app:Shop txn:"/checkout"' })).map((each) => each.start_ms);
	const first = Date.parse(shown[groups.findIndex((row) => row.type === 'PaymentFailed')].First);
	assert.ok(Math.abs(first - Math.min(...failing)) < 5000);
	const { hosts } = await collector.ask('/api/v1/calls', { from: '1h' });
	await show(page, `${collector.url}/external`);
	assertRows(
		await rowsOf(page),
		byTime(hosts),
		(row) => ({ ...DURATIONS(row), Time: row.time_share, Calls: row.count, Longest: row.longest_ms, Errors: row.error_share }),
		(row) => row.host,
	);
});

/* Sums over the stored requests of a transaction, one by one. */
async function storedSums(query) {
	const requests = await allRequests({ q: query });
	const sums = { requests: requests.length, layers: {}, calls: new Map() };
	for (const { id } of requests) {
		const { spans, layers } = await collector.ask('/api/v1/request', { id });
		for (const [layer, ms] of Object.entries(layers)) {
			sums.layers[layer] = (sums.layers[layer] ?? 0) + ms;
		}
		for (const { name, duration_ms: took } of spans) {
			const sum = sums.calls.get(name) ?? { count: 0, total: 0 };
			sums.calls.set(name, { count: sum.count + 1, total: sum.total + took });
		}
	}
	return sums;
}

test('the figures of one transaction are those of its requests', async () => {
	const { page } = opened;
	const parameters = { from: '1h', app: 'Shop', txn: '/order' };
	const { transactions } = await collector.ask('/api/v1/top', parameters);
	const { statements } = await collector.ask('/api/v1/queries', parameters);
	const sums = await storedSums('app:Shop txn:"/order"');
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Forder`);
	const [row] = transactions;
	const shown = await figuresOf(page);
	const expected = {
		...DURATIONS(row), Calls: row.requests, Rate: row.calls_per_minute, 'Share of all time': row.time_share, Errors: row.error_share,
		Apdex: row.apdex, Queries: row.queries_per_request, CPU: row.cpu_ms, Memory: row.memory_bytes,
	};
	for (const [name, value] of Object.entries(expected)) {
		assertFigure(shown[name], value, name);
	}
	const table = (caption) => page.locator('.table', { has: page.getByRole('table', { name: caption, exact: true }) });
	assertRows(
		await rowsOf(table('Statements')),
		statements.slice(0, 5),
		(each) => ({ 'Per call': each.count / sums.requests, Mean: each.total_ms / each.count, 'In all': each.total_ms }),
		(each) => each.statement,
	);
	const legend = await page.locator('.layer-sums > span').allTextContents();
	for (const [name, layer] of [['database', 'database'], ['HTTP', 'http']]) {
		assertFigure(legend.find((each) => each.startsWith(`${name} `)).slice(name.length + 1).replace(/ \S+ %$/, ''), sums.layers[layer] / sums.requests, name);
	}
	const boxes = await page.locator('.icicle-box').evaluateAll((list) => list.map((each) => each.title.split('\n')));
	for (const name of ['main', 'Client::get', 'PDO::query']) {
		const text = boxes.find((each) => each[0] === name);
		assertFigure(/^(.*) per request,/.exec(text.at(-2))[1], sums.calls.get(name).total / sums.requests, name);
		assert.equal(figure(text.at(-1)), sums.calls.get(name).count + sums.requests, name);
	}
});

test('what grew between two requests is the interface\'s', async () => {
	const { page } = opened;
	const requests = await allRequests({ q: 'txn:"/cart"', order: 'slowest' });
	const [a, b] = [requests.at(-1).id, requests[0].id];
	const { differences } = await collector.ask('/api/v1/compare', { a, b, limit: 300 });
	await show(page, `${collector.url}/compare?what=requests&a=${a}&b=${b}`);
	const shown = await rowsOf(page.locator('.table', { has: page.getByRole('table', { name: 'What differs' }) }));
	assert.equal(shown.length, differences.length);
	differences.forEach((row, i) => {
		assertFigure(shown[i].Growth, row.growth_ms, row.name);
		assert.equal(shown[i].Growth.startsWith('+'), row.growth_ms > 0);
		for (const [title, before, after] of [['Calls', row.count_before, row.count_after], ['Own time', row.self_before_ms, row.self_after_ms], ['With its calls', row.total_before_ms, row.total_after_ms]]) {
			const [one, other] = shown[i][title].split(' → ');
			assertFigure(one, before, `${row.name}, ${title}`);
			assertFigure(other, after, `${row.name}, ${title}`);
		}
	});
});

test('calls of two requests stand side by side when they ran', async () => {
	const { page } = opened;
	const requests = await allRequests({ q: 'txn:"/cart"', order: 'slowest' });
	const sides = [requests.at(-1).id, requests[0].id];
	await show(page, `${collector.url}/compare?what=requests&a=${sides[0]}&b=${sides[1]}`);
	const spans = await Promise.all(sides.map(async (id) => (await collector.ask('/api/v1/request', { id })).spans));
	const whole = Math.max(...spans.flat().map((each) => each.start_ms + each.duration_ms));
	const rows = page.getByRole('table', { name: 'Calls side by side' }).locator('tbody tr');
	for (const [name, outer] of [['main', 0], ['Cart::items', 1], ['PDO::query', 2], ['View::render', 1]]) {
		const row = rows.filter({ has: page.locator('b', { hasText: new RegExp(`^${name}$`) }) });
		assert.equal(await row.count(), 1, name);
		assert.equal(await row.locator('.aligned-call').evaluate((each) => getComputedStyle(each).paddingLeft), `${14 * outer}px`);
		const bars = await row.locator('.aligned-lane').evaluateAll((lanes) =>
			lanes.map((lane) => {
				const [room, bar] = [lane.getBoundingClientRect(), lane.firstElementChild.getBoundingClientRect()];
				return [(bar.left - room.left) / room.width, bar.width / room.width];
			}),
		);
		const totals = spans.map((each) => {
			const own = each.filter((span) => span.name === name);
			return { own, total: own.reduce((sum, span) => sum + span.duration_ms, 0) };
		});
		const shown = await row.locator('td.number').allInnerTexts();
		totals.forEach(({ own, total }, i) => {
			const from = Math.min(...own.map((span) => span.start_ms));
			const to = Math.max(...own.map((span) => span.start_ms + span.duration_ms));
			assert.ok(Math.abs(bars[i][0] - from / whole) < 0.01 && Math.abs(bars[i][1] - (to - from) / whole) < 0.01, `${name}: ${bars[i]}`);
			const [, took, calls = '1'] = /^(.*?)(?: in (\d+))?$/.exec(shown[i]);
			assert.equal(Number(calls), own.length);
			assertFigure(took, total, name);
		});
		assertFigure(shown[2], totals[1].total - totals[0].total, name);
	}
});

test('the map says of each service and of each call what the interface does', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/map`);
	const { applications } = await collector.ask('/api/v1/applications', { from: '1h' });
	for (const row of applications) {
		const text = await page.locator('.map-application', { has: page.locator('b', { hasText: new RegExp(`^${row.application}$`) }) }).innerText();
		const [, rate, p95, errors] = /\n(.*?) · p95 (.*?) · (.*) errors/.exec(text);
		assertFigure(rate, row.calls_per_minute, row.application);
		assertFigure(p95, row.p95_ms, row.application);
		assertFigure(errors === 'no' ? '0 %' : errors, row.error_share, row.application);
	}
	const { hosts } = await collector.ask('/api/v1/calls', { from: '1h' });
	const shown = await rowsOf(page);
	for (const [from, to, host] of [['Shop', 'Stock', 'stock.example'], ['Shop', 'Prices', 'prices.example'], ['Shop', 'pay.example', 'pay.example'], ['Prices', 'rates.example', 'rates.example']]) {
		const row = shown.find((each) => each.From === from && each.To === to);
		const call = hosts.find((each) => each.application === from && each.host === host);
		for (const [title, value] of Object.entries({ Calls: call.count, p95: call.p95_ms, 'In all': call.total_ms, Errors: call.failed / call.count })) {
			assertFigure(row[title], value, `${from} to ${to}, ${title}`);
		}
	}
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
