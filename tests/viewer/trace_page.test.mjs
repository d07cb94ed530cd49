/* The pages of a request and of a trace, as somebody uses them. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { largeRequest } from './large.mjs';
import { layoutProblems } from './layout.mjs';
import { shopRequests } from './shop.mjs';
import { active, eventually, heard, heldIn, own, rows, ROWS, told } from './trace_view.mjs';

let collector;
let browser;
let opened;
let ids;

before(async () => {
	collector = await Collector.start();
	const large = largeRequest(10000);
	await collector.take([...shopRequests(250, 40), large.line]);
	const slowest = async (q) => (await collector.ask('/api/v1/requests', { q, order: 'slowest', limit: 1 })).requests[0];
	const order = await slowest('txn:/order');
	ids = { cart: (await slowest('txn:/cart')).id, checkout: (await slowest('txn:/checkout')).id, order: order.id, trace: order.trace_id, large: large.id };
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

async function open(path) {
	const { page } = opened;
	await show(page, collector.url + path);
	await page.waitForSelector('.trace-page');
	return page;
}

test('the verdict is on top, what it rests on is chosen, and its statement stands beside', async () => {
	const answer = await collector.ask('/api/v1/request', { id: ids.cart });
	const page = await open(`/request?id=${ids.cart}`);
	const [finding] = answer.findings;
	await told(page.locator('.verdict').first(), new RegExp(`${finding.count} times the same statement`));
	await heard(page, new RegExp(`^${finding.spans.length} times SELECT id, name, price FROM item WHERE id = \\?, database`));
	const sum = finding.spans.reduce((total, span) => total + answer.spans[span].duration_ms, 0);
	await told(page.locator('.details'), new RegExp(`Together${sum} ms`));
	assert.equal(await page.locator('.details .sql').first().textContent(), 'SELECT id, name, price\nFROM item\nWHERE id = ?');
});

test('a finding marks the calls that it rests on, and takes the marks back', async () => {
	const page = await open(`/request?id=${ids.cart}`);
	const verdict = page.locator('.verdict').first();
	await verdict.click();
	assert.equal(await verdict.getAttribute('aria-pressed'), 'true');
	await heldIn(page, 'finding', '0');
	await verdict.click();
	assert.equal(await verdict.getAttribute('aria-pressed'), 'false');
	await heldIn(page, 'finding', '');
});

test('repeated statements are one row that opens into each of them', async () => {
	const answer = await collector.ask('/api/v1/request', { id: ids.cart });
	const statements = answer.spans.filter((span) => span.statement).length;
	const page = await open(`/request?id=${ids.cart}`);
	assert.equal((await rows(page)).filter((row) => /times SELECT/.test(row)).length, 1);
	await page.keyboard.press('ArrowRight');
	await page.keyboard.press('ArrowRight');
	await heard(page, /^SELECT id, name, price/);
	const tree = page.locator(`${ROWS}[aria-selected=true]`);
	assert.equal(await tree.getAttribute('aria-setsize'), String(statements));
	assert.equal(await tree.getAttribute('aria-posinset'), '1');
	await page.keyboard.press('ArrowLeft');
	await page.keyboard.press('ArrowLeft');
	assert.equal((await rows(page)).filter((row) => /times SELECT/.test(row)).length, 1);
});

const KEYS = [
	['Home', (page) => heard(page, /^GET \/cart/)],
	['ArrowDown', (page) => heard(page, /^Session::start/)],
	['j', (page) => heard(page, /^Redis::get/)],
	['k', (page) => heard(page, /^Session::start/)],
	['ArrowUp', (page) => heard(page, /^GET \/cart/)],
	['End', (page) => heard(page, /^View::render/)],
	['PageUp', (page) => heard(page, /^GET \/cart/)],
	['PageDown', (page) => heard(page, /^View::render/)],
	['+', async (page) => page.waitForURL(/zoom=/)],
	['.', async (page) => page.waitForURL(/zoom=/)],
	[',', async (page) => page.waitForURL(/zoom=/)],
	['0', async (page) => heldIn(page, 'zoom', '')],
	['z', async (page) => page.waitForURL(/zoom=/)],
	['-', async (page) => page.waitForURL(/zoom=/)],
	['0', async (page) => heldIn(page, 'zoom', '')],
	['c', async (page) => heldIn(page, 'open', '-*')],
	['e', async (page) => heldIn(page, 'open', '*')],
	['Home', (page) => heard(page, /^GET \/cart/)],
	['ArrowLeft', (page) => eventually(async () => assert.equal((await rows(page)).length, 1))],
	['ArrowRight', (page) => eventually(async () => assert.ok((await rows(page)).length > 1))],
	['l', (page) => heard(page, /^Session::start/)],
	['h', async (page) => page.waitForTimeout(1)],
	['h', (page) => heard(page, /^GET \/cart/)],
	['p', async (page) => page.waitForURL(/span=/)],
	['Enter', (page) => page.waitForFunction(() => document.activeElement.matches('.details-body'))],
	['f', async (page) => heldIn(page, 'view', 'flame')],
	['w', async (page) => heldIn(page, 'view', '')],
	['Escape', async (page) => heldIn(page, 'span', 'none')],
	['s', (page) => page.waitForFunction(() => document.activeElement.matches('.find'))],
];

test('every key of the waterfall does what the help says', async () => {
	const page = await open(`/request?id=${ids.cart}`);
	await page.locator('.waterfall-scroll').first().focus();
	await page.keyboard.press('Escape');
	for (const [key, check] of KEYS) {
		await page.keyboard.press(key);
		await check(page);
		if (key === 'Enter') {
			await page.locator('.waterfall-scroll').first().focus();
		}
	}
});

test('n and N go through what failed', async () => {
	const page = await open(`/request?id=${ids.checkout}`);
	await page.keyboard.press('Escape');
	await page.keyboard.press('n');
	await heard(page, /^Payment::charge.*failed/);
	await page.keyboard.press('n');
	await heard(page, /pay\.example.*failed/);
	await page.keyboard.press('N');
	await heard(page, /^Payment::charge/);
	await told(page.locator('.details'), /PaymentFailed.*the bank answered.*Payment\.php:33/s);
});

test('the help lists the keys of the page', async () => {
	const page = await open(`/request?id=${ids.cart}`);
	await page.keyboard.press('?');
	const text = await page.locator('dialog').textContent();
	for (const [key] of KEYS) {
		const shown = { ArrowDown: '↓', ArrowUp: '↑', ArrowLeft: '←', ArrowRight: '→', Escape: 'Esc' }[key] ?? key;
		assert.ok(text.includes(shown), key);
	}
	await page.keyboard.press('Escape');
});

test('a flame graph is gone through with the arrows', async () => {
	const page = await open(`/request?id=${ids.cart}&view=flame&span=none`);
	await page.keyboard.press('ArrowDown');
	await heard(page, /^GET \/cart/);
	await page.keyboard.press('ArrowDown');
	await heard(page, /^Cart::items/);
	await page.keyboard.press('ArrowDown');
	await heard(page, /times SELECT id, name, price/);
	await page.keyboard.press('ArrowUp');
	await page.keyboard.press('ArrowRight');
	await heard(page, /^View::render/);
	await page.keyboard.press('z');
	await page.waitForURL(/frame=/);
	await page.keyboard.press('0');
	await heldIn(page, 'frame', '');
});

test('of ten thousand spans only what is seen is drawn and read out', async () => {
	const page = await open(`/request?id=${ids.large}`);
	await page.keyboard.press('e');
	await heldIn(page, 'open', '*');
	await page.keyboard.press('End');
	await heard(page, /./);
	await eventually(async () => {
		const { canvas, room, whole } = await page.evaluate(() => {
			const scroller = document.querySelector('.waterfall-scroll');
			return { canvas: scroller.querySelector('canvas').clientHeight, room: scroller.clientHeight, whole: scroller.scrollHeight };
		});
		assert.ok(canvas <= room && whole > 50 * room, `${canvas} of ${whole}`);
	});
	assert.ok((await rows(page)).length < 100);
	await page.keyboard.press('Home');
	await eventually(async () => assert.ok((await rows(page))[0].startsWith('GET /long/10000')));
});

test('a link restores the view', async () => {
	const page = await open(`/request?id=${ids.large}`);
	await page.keyboard.press('e');
	await heldIn(page, 'open', '*');
	for (const key of ['PageDown', 'PageDown', 'ArrowDown', '+', '+']) {
		await page.keyboard.press(key);
	}
	await page.waitForURL(/top=/);
	await page.waitForTimeout(500);
	const [shown, chosen, held] = [await rows(page), await active(page), own(page)];
	await show(page, `${collector.url}/transactions`);
	await show(page, `${collector.url}/request?${new URLSearchParams(held)}`);
	await page.waitForSelector('.trace-page');
	assert.deepEqual(await rows(page), shown);
	assert.equal(await active(page), chosen);
	await page.waitForTimeout(500);
	assert.deepEqual(own(page), held);
});

test('what is found is marked, counted and gone through', async () => {
	const answer = await collector.ask('/api/v1/request', { id: ids.large });
	const wanted = answer.spans.filter((span) => (span.statement ?? '').includes('item_7')).length;
	const page = await open(`/request?id=${ids.large}`);
	await page.keyboard.press('s');
	await page.keyboard.type('item_7');
	await page.waitForFunction(() => /call/.test(document.querySelector('.find + span').textContent));
	assert.equal(await page.locator('.find + span').textContent(), `${wanted} calls`);
	await page.keyboard.press('Enter');
	await heard(page, /item_7/);
	await page.keyboard.press('Escape');
	assert.equal(await page.locator('.find').inputValue(), '');
});

test('statements are grouped with their sums, and lead to their calls', async () => {
	const answer = await collector.ask('/api/v1/request', { id: ids.large });
	const sums = new Map();
	for (const span of answer.spans.filter((each) => each.statement)) {
		const known = sums.get(span.statement) ?? { count: 0, total: 0 };
		sums.set(span.statement, { count: known.count + 1, total: known.total + span.duration_ms });
	}
	const [statement, first] = [...sums].sort(([, one], [, other]) => other.total - one.total)[0];
	const page = await open(`/request?id=${ids.large}&tab=sql`);
	const cells = await page.locator('.tab-panel .table tbody tr').first().locator('td').allTextContents();
	assert.ok(cells[1].startsWith(statement));
	assert.equal(cells[2], String(first.count));
	assert.equal(cells[3], `${first.total} ms`);
	assert.equal(await page.locator('.tab-panel .table tbody tr[data-row]').count(), sums.size);
	await page.locator('.tab-panel .opener').first().click();
	await told(page.locator('.tab-panel .table .sql'), /^SELECT id, name, price\nFROM item_/);
	await page.getByRole('button', { name: 'Show', exact: true }).first().click();
	await heard(page, new RegExp(statement.slice(0, 30)));
});

test('tabs tell of errors, of what was asked, and of what was used', async () => {
	const page = await open(`/request?id=${ids.checkout}&tab=errors`);
	await told(page.locator('.errors'), /PaymentFailed Error.*the bank answered 503 for order/s);
	await page.getByRole('tab', { name: 'Request' }).click();
	await heldIn(page, 'tab', 'request');
	await told(page.locator('[role=tabpanel]:not([hidden])'), /MethodPOST.*Path\/checkout.*Status500/s);
	await page.keyboard.press('ArrowRight');
	await told(page.locator('[role=tabpanel]:not([hidden])'), /Peak memory4 MiB.*Processor.*by function/s);
	await page.keyboard.press('w');
	await heldIn(page, 'tab', '');
});

test('a trace shows each request below the call that made it', async () => {
	const answer = await collector.ask('/api/v1/trace', { id: ids.trace });
	const page = await open(`/trace?id=${ids.trace}`);
	assert.equal(await page.locator('.request-tree li').count(), answer.requests.length);
	await rows(page);
	const levels = await page.locator(ROWS).evaluateAll((items) => items.map((item) => [item.textContent, Number(item.getAttribute('aria-level'))]));
	const level = (text) => levels.find(([row]) => row.startsWith(text))[1];
	assert.equal(level('Stock GET /stock/item'), level('http://stock.example') + 1);
	assert.equal(level('Prices GET /price'), level('http://prices.example') + 1);
	await page.getByRole('link', { name: 'GET /price' }).click();
	await page.waitForURL(/\/request\?/);
	await settled(page);
	assert.equal(await page.locator('h1').textContent(), 'GET /price');
});

test('a request is pinned, and let go', async () => {
	const page = await open(`/request?id=${ids.order}`);
	const isPinned = async () => (await collector.ask('/api/v1/request', { id: ids.order })).request.pinned;
	await page.getByRole('button', { name: 'Pin', exact: true }).click();
	await page.getByRole('button', { name: 'Pinned' }).waitFor();
	assert.equal(await isPinned(), true);
	await page.getByRole('button', { name: 'Pinned' }).click();
	await page.getByRole('button', { name: 'Pin', exact: true }).waitFor();
	assert.equal(await isPinned(), false);
});

test('what there is not is said, with what to do', async () => {
	const { page, problems } = opened;
	await show(page, `${collector.url}/request?id=ffffffffffffffff`);
	await told(page.locator('.state-error'), /there is no request or trace.*Try again/s);
	problems.length = 0;
});

for (const [width, height] of [[1280, 900], [390, 800]]) {
	for (const colorScheme of ['light', 'dark']) {
		test(`requests and traces are whole at ${width} pixels in the ${colorScheme} theme`, { timeout: 240000 }, async (context) => {
			const { page, problems, close } = await openPage(browser, collector, { viewport: { width, height }, colorScheme });
			const paths = [`/request?id=${ids.cart}`, `/request?id=${ids.cart}&view=flame`, `/request?id=${ids.large}`, `/trace?id=${ids.trace}`];
			paths.push(...['sql', 'errors', 'request', 'resources'].flatMap((tab) => [`/request?id=${ids.checkout}&tab=${tab}`, `/trace?id=${ids.trace}&tab=${tab}`]));
			for (const path of paths) {
				await context.test(path, async () => {
					await show(page, collector.url + path);
					await page.waitForSelector('.trace-page');
					assert.deepEqual(await page.evaluate(layoutProblems), []);
					assert.deepEqual(await accessibilityProblems(page), []);
					assert.deepEqual(problems.splice(0), []);
				});
			}
			await page.getByRole('button', { name: 'Share' }).click();
			assert.deepEqual(await accessibilityProblems(page), []);
			await close();
		});
	}
}

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
