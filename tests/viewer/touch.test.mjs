/* Fingers on the drawings of a request, on a narrow screen: they zoom, move, scroll and choose. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { largeRequest } from './large.mjs';
import { shopRequests } from './shop.mjs';

const STEPS = 8;

let collector;
let browser;
let opened;
let fingers;
let ids;

before(async () => {
	collector = await Collector.start();
	const large = largeRequest(2000);
	await collector.take([...shopRequests(60, 30), large.line]);
	const { requests } = await collector.ask('/api/v1/requests', { q: 'txn:/cart', order: 'slowest', limit: 1 });
	ids = { cart: requests[0].id, large: large.id };
	browser = await startBrowser();
	opened = await openPage(browser, collector, { viewport: { width: 390, height: 800 }, hasTouch: true, isMobile: true });
	fingers = await opened.page.context().newCDPSession(opened.page);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* Each finger goes from its first to its second place. */
async function drag(...ways) {
	const at = (share) => ways.map(([[x1, y1], [x2, y2]]) => ({ x: x1 + (x2 - x1) * share, y: y1 + (y2 - y1) * share }));
	await fingers.send('Input.dispatchTouchEvent', { type: 'touchStart', touchPoints: at(0) });
	for (let step = 1; step <= STEPS; step++) {
		await fingers.send('Input.dispatchTouchEvent', { type: 'touchMove', touchPoints: at(step / STEPS) });
		await opened.page.evaluate(() => new Promise((resolve) => requestAnimationFrame(resolve)));
	}
	await fingers.send('Input.dispatchTouchEvent', { type: 'touchEnd', touchPoints: [] });
}

/* A drawing, in sight, with its box. */
async function drawing(id, view) {
	const { page } = opened;
	await show(page, `${collector.url}/request?${new URLSearchParams({ id, ...(view === 'flame' ? { view } : {}), span: 'none' })}`);
	const place = page.locator(view === 'flame' ? '.flame-scroll' : '.waterfall-scroll:not(.flame-scroll)');
	await place.evaluate((element) => element.scrollIntoView({ block: 'end' }));
	return { place, box: await place.boundingBox() };
}

/* What the address says is shown, once that is something else than before. */
async function rangeOf(name, before = '') {
	const { page } = opened;
	await page.waitForFunction(([key, old]) => (new URL(location.href).searchParams.get(key) ?? '') !== old, [name, before]);
	// It is held once the fingers rest.
	await page.waitForTimeout(600);
	const text = new URL(page.url()).searchParams.get(name) ?? '';
	return { text, range: text === '' ? undefined : text.split('-').map(Number) };
}

async function wholeOf(view) {
	const { request, spans } = await collector.ask('/api/v1/request', { id: ids.cart });
	return view === 'flame' ? spans.reduce((sum, span) => sum + span.self_ms, 0) : request.duration_ms;
}

for (const [view, name] of [['waterfall', 'zoom'], ['flame', 'part']]) {
	test(`two fingers zoom the ${view}, and what is below them stays there`, async () => {
		const { box } = await drawing(ids.cart, view);
		const y = box.y + box.height / 2;
		const at = (share) => box.x + box.width * share;
		const whole = await wholeOf(view);
		await drag([[at(0.4), y], [at(0.2), y]], [[at(0.6), y], [at(0.8), y]]);
		const near = await rangeOf(name);
		const [from, to] = near.range;
		// Fingers went three times as far from each other around the middle.
		assert.ok(Math.abs((to - from) / whole - 1 / 3) < 0.03, `${near.text} of ${whole}`);
		assert.ok(Math.abs((from + to) / 2 / whole - 0.5) < 0.03, `${near.text} of ${whole}`);
		await drag([[at(0.3), y], [at(0.6), y]]);
		const moved = await rangeOf(name, near.text);
		assert.ok(Math.abs(moved.range[0] - (from - 0.3 * (to - from))) < 0.05 * (to - from), `${near.text} to ${moved.text}`);
		assert.ok(Math.abs(moved.range[1] - moved.range[0] - (to - from)) < 0.01);
		await drag([[at(0.1), y], [at(0.45), y]], [[at(0.9), y], [at(0.55), y]]);
		assert.equal((await rangeOf(name, moved.text)).range, undefined);
	});
}

test('one finger scrolls the rows without zooming', async () => {
	const { page } = opened;
	const { place, box } = await drawing(ids.large, 'waterfall');
	await page.keyboard.press('e');
	await page.waitForURL(/open=/);
	await page.waitForFunction(() => document.querySelector('.waterfall-space').clientHeight > 2000);
	const x = box.x + box.width / 2;
	await drag([[x, box.y + box.height * 0.8], [x, box.y + box.height * 0.3]]);
	await page.waitForURL(/top=[1-9]/);
	assert.ok(await place.evaluate((element) => element.scrollTop > 0));
	assert.equal(new URL(page.url()).searchParams.get('zoom'), null);
});

test('a tap chooses a call, and a frame', async () => {
	const { page } = opened;
	for (const view of ['waterfall', 'flame']) {
		const { box } = await drawing(ids.cart, view);
		await page.touchscreen.tap(box.x + box.width / 2, box.y + (view === 'flame' ? 10 : 40));
		await page.locator('.details h3, .details h2').first().waitFor();
		assert.match(await page.locator('.details').textContent(), /GET \/cart/);
	}
});

test('an edge of the part that the little drawing shows is taken with a finger', async () => {
	const { page } = opened;
	const { box } = await drawing(ids.cart, 'waterfall');
	const y = box.y + box.height / 2;
	await drag([[box.x + 150, y], [box.x + 80, y]], [[box.x + 200, y], [box.x + 280, y]]);
	const before = await rangeOf('zoom');
	const map = await page.locator('.minimap').boundingBox();
	const whole = await wholeOf('waterfall');
	const edge = map.x + (before.range[1] / whole) * map.width;
	const middle = map.y + map.height / 2;
	await drag([[edge + 12, middle], [edge + 52, middle]]);
	const after = await rangeOf('zoom', before.text);
	assert.ok(Math.abs(after.range[0] - before.range[0]) < 0.01);
	assert.ok(after.range[1] > before.range[1]);
});

test('nothing went wrong in the page', () => {
	assert.deepEqual(opened.problems, []);
});
