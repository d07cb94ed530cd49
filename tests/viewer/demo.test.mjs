/* The demonstration's shop as the extension records it: every page of it is whole, and says what its order lacks. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { openPage, settled, show, startBrowser } from './collector.mjs';
import { Demo, demoMissing } from './demo.mjs';
import { assertFigure, rowsOf } from './shown_figures.mjs';
import { assertWhole, pagePaths, screenName, SCREENS } from './whole.mjs';

const APPLICATION = 'Demo shop';
const SERVICES = ['Demo prices', APPLICATION, 'Demo stock'];
const VISITS = ['/', '/shop/cart?item=3', '/order?item=3', '/order?item=4', '/report', '/error', '/order?item=3'];
/* Of an order: its own, and those that it and its services cause. */
const REQUESTS = 6;
const WATERFALL = '.waterfall-scroll:not(.flame-scroll)';
const ARRIVAL_MS = 30000;

const skip = demoMissing() ? `the demonstration cannot run: ${demoMissing()}` : false;

let demo;
let browser;
let opened;

before(async () => {
	if (skip) {
		return;
	}
	demo = await Demo.start();
	browser = await startBrowser();
	opened = await openPage(browser, { url: demo.url, loginLink: () => demo.link });
	const known = (await allRequests()).length;
	for (const path of VISITS) {
		await demo.visit(path);
	}
	await arrived(known + VISITS.length + VISITS.filter((path) => path.startsWith('/order')).length * (REQUESTS - 1));
});

after(async () => {
	await browser?.close();
	await demo?.stop();
});

function ask(path, parameters = {}) {
	return opened.page.evaluate(
		async (address) => {
			const response = await fetch(address);
			if (!response.ok) {
				throw new Error(`${address}: ${response.status} ${await response.text()}`);
			}
			return response.json();
		},
		`${path}?${new URLSearchParams(parameters)}`,
	);
}

async function allRequests(parameters = {}) {
	return (await ask('/api/v1/requests', { limit: 1000, ...parameters })).requests;
}

async function arrived(count) {
	for (const end = Date.now() + ARRIVAL_MS; (await allRequests()).length < count; await new Promise((resolve) => setTimeout(resolve, 200))) {
		assert.ok(Date.now() < end, `${(await allRequests()).length} of ${count} requests arrived`);
	}
}

/* The newest of the shop's own with this name. */
async function newest(name) {
	return (await allRequests({ q: `app:"${APPLICATION}" txn:"${name}"` }))[0];
}

/* The first link works once. */
async function openDemo(screen) {
	const storageState = await opened.page.context().storageState();
	return openPage(browser, { url: demo.url, loginLink: () => demo.url }, { ...screen, storageState });
}

/* Of a request and of a trace, in each of their views. */
async function tracePaths() {
	const [order, report, error, job] = await Promise.all(['/order', '/report', '/error', 'job.php'].map(newest));
	const views = ['view=flame', 'tab=sql', 'tab=errors', 'tab=request', 'tab=resources'];
	const both = Object.fromEntries(views.flatMap((view) => [[`request with ${view}`, `/request?id=${order.id}&${view}`], [`trace with ${view}`, `/trace?id=${order.trace_id}&${view}`]]));
	return { 'request of an order': `/request?id=${order.id}`, 'trace of an order': `/trace?id=${order.trace_id}`, report: `/request?id=${report.id}`, error: `/request?id=${error.id}`, job: `/request?id=${job.id}`, ...both };
}

for (const screen of SCREENS) {
	test(`the pages of the demonstration are whole at ${screenName(screen)}`, { skip, timeout: 300000 }, async (context) => {
		const own = await openDemo(screen);
		const [order, other] = await allRequests({ q: `app:"${APPLICATION}" txn:"/order"` });
		const paths = pagePaths({ app: APPLICATION, txn: '/order', host: encodeURIComponent(order.host), requests: [order.id, other.id] });
		for (const [name, path] of Object.entries({ ...paths, ...(await tracePaths()) })) {
			await context.test(name, () => assertWhole(own, demo.url + path));
		}
		await own.close();
	});
}

test('the overview names the applications of the demonstration, and what its order lacks', { skip }, async () => {
	const { page } = opened;
	await show(page, `${demo.url}/`);
	assert.deepEqual((await page.locator('.application').evaluateAll((list) => list.map((each) => each.getAttribute('aria-label')))).sort(), SERVICES);
	const { findings } = await ask('/api/v1/findings', { from: '1h', limit: 5 });
	const sentence = findings.find((each) => each.transaction === '/order').sentence;
	const row = page.locator('.finding', { hasText: '/order' }).first();
	assert.match(sentence, /HTTP calls one after the other/);
	assert.ok((await row.textContent()).includes(sentence));
	await row.locator('.finding-sentence a').click();
	await settled(page);
	assert.equal(await page.locator('h1').textContent(), 'GET /order');
});

test('an order says in its verdict that its calls follow each other, with what is to gain', { skip }, async () => {
	const { page } = opened;
	const { id, trace_id: trace } = await newest('/order');
	const answer = await ask('/api/v1/request', { id });
	const [finding] = answer.findings;
	assert.equal(finding.kind, 'calls-in-sequence');
	await show(page, `${demo.url}/request?id=${id}`);
	const verdict = page.locator('.verdict').first();
	assert.equal(await verdict.locator('.verdict-text').textContent(), finding.sentence);
	assertFigure(await verdict.locator('.verdict-gain b').textContent(), finding.gain_ms, 'what is to gain');
	assert.equal(await verdict.locator('.verdict-where').textContent(), `show ${finding.spans.length} calls`);
	await page.getByRole('link', { name: `${REQUESTS - 1} more requests of its trace` }).click();
	await settled(page);
	assert.equal(new URL(page.url()).searchParams.get('id'), trace);
});

test('the trace of an order has every request of its services below the call that caused it', { skip }, async () => {
	const { page, close } = await openDemo({ viewport: { width: 1280, height: 4000 } });
	const { trace_id: id } = await newest('/order');
	const { requests } = await ask('/api/v1/trace', { id });
	assert.equal(requests.length, REQUESTS);
	await show(page, `${demo.url}/trace?id=${id}&open=*&span=none`);
	const listed = await page.locator('.request-tree li').evaluateAll((list) => list.map((each) => [each.querySelector('.service').textContent, each.querySelector('.cut').textContent]));
	assert.deepEqual(listed, requests.map((each) => [each.request.application, `${each.request.method} ${each.request.name}`]));
	assert.deepEqual([...new Set(listed.map(([service]) => service))].sort(), SERVICES);
	assert.match(await page.locator('.request-head').textContent(), new RegExp(`${REQUESTS} requests of ${SERVICES.length} services`));
	const rows = page.locator(`${WATERFALL} [role=treeitem]`);
	await rows.filter({ hasText: /^Demo (stock|prices) GET / }).nth(REQUESTS - 2).waitFor({ state: 'attached' });
	const levels = await rows.evaluateAll((items) => items.map((item) => ({ text: item.textContent, level: Number(item.getAttribute('aria-level')) })));
	const called = requests.filter((each) => each.caller);
	assert.equal(called.length, REQUESTS - 1);
	const below = levels.flatMap(({ text, level }, i) =>
		called.some(({ request }) => text.startsWith(`${request.application} ${request.method} ${request.name},`))
			? [[text.split(',')[0], levels.slice(0, i).findLast((each) => each.level < level)?.text ?? '']]
			: [],
	);
	assert.deepEqual(below.map(([text]) => text).sort(), called.map(({ request }) => `${request.application} ${request.method} ${request.name}`).sort());
	for (const [text, call] of below) {
		assert.match(call, new RegExp(`^http://127\\.0\\.0\\.1:\\d+${text.split(' ').at(-1)}.*, http, `), `${text} below ${call}`);
	}
	await close();
});

test('the map of the demonstration joins its services', { skip }, async () => {
	const { page } = opened;
	await show(page, `${demo.url}/map`);
	const pairs = (await rowsOf(page)).map((each) => `${each.From} → ${each.To}`);
	for (const pair of ['Demo shop → Demo prices', 'Demo shop → Demo stock', 'Demo prices → Demo stock']) {
		assert.ok(pairs.includes(pair), `${pair} is not in ${pairs}`);
	}
	assert.equal(await page.locator('.map-host').count(), 0);
});

test('nothing went wrong in the pages', { skip }, () => {
	assert.deepEqual(opened.problems, []);
});
