/* What is drawn on canvases and as lines, which boxes of the page tell nothing of; and whose a row is. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { linesUnderBoxes } from './layout.mjs';
import { Requests, shopRequests } from './shop.mjs';

let collector;
let browser;
let opened;

/* A request of minutes; two applications with pages of one name; calls that overlap. */
function more() {
	const all = new Requests(3);
	const at = Date.now() - 20 * 60000;
	all.begin(at, { application: 'Batch', name: '/long' }).code(130000).end();
	for (const minutes of [12, 3]) {
		for (const application of ['Shop', 'Stock']) {
			all.begin(Date.now() - minutes * 60000, { application, name: '/', http_host: 'stock.example' }).code(20 + minutes).end();
		}
	}
	const overlapping = all.begin(at, { application: 'Batch', name: '/overlapping' });
	for (let i = 0; i < 6; i++) {
		overlapping.statement('SELECT price FROM item WHERE id = 3', 300);
		overlapping.now = at;
	}
	overlapping.wait(900).end();
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take([...shopRequests(300, 40), ...more()]);
	browser = await startBrowser();
	opened = await openPage(browser, collector);
	await opened.page.addInitScript(() => {
		window.texts = [];
		const { fillText } = CanvasRenderingContext2D.prototype;
		CanvasRenderingContext2D.prototype.fillText = function (text, x, y) {
			const { width } = this.measureText(text);
			const begin = x - { left: 0, center: width / 2, right: width }[this.textAlign];
			// Where the text stands on the canvas, in pixels of the page.
			const scale = this.canvas.clientWidth / this.canvas.width;
			const [left, right] = [begin, begin + width].map((each) => this.getTransform().transformPoint({ x: each, y }).x * scale);
			window.texts.push({ of: this.canvas.className, isLines: this.canvas.closest('.lines') !== null, text, begin: left, end: right, room: this.canvas.clientWidth });
			fillText.call(this, text, x, y);
		};
	});
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

test('the words of the plot of requests are whole, and its times are round', async () => {
	const { page } = opened;
	for (const [width, from, minutes] of [[1280, '1h', 5], [390, '1h', 15], [1280, '7m', 1], [1280, '40s', 0]]) {
		await page.setViewportSize({ width, height: 900 });
		await show(page, `${collector.url}/search?from=${from}&${from === '40s' ? `to=${Date.now() - 5000}&from=${Date.now() - 25 * 60000}` : ''}`);
		const texts = (await page.evaluate(() => window.texts)).filter((each) => each.of.includes('scatter'));
		assert.ok(texts.length > 4);
		for (const { text, begin, end, room } of texts) {
			assert.ok(begin >= 0 && end <= room, `${text} of ${from} at ${width} is cut off`);
		}
		const times = texts.map(({ text }) => /^(\d\d):(\d\d)$/.exec(text)).filter(Boolean);
		assert.ok(times.length >= 2);
		times.forEach(([text, , minute]) => assert.equal(Number(minute) % (minutes || 5), 0, `${text} of ${from}`));
	}
	await page.setViewportSize({ width: 1280, height: 900 });
});

test('the words beside lines are whole, those of minutes, too', async () => {
	const { page } = opened;
	for (const width of [1280, 390]) {
		await page.setViewportSize({ width, height: 900 });
		await show(page, `${collector.url}/transaction?app=Batch&txn=%2Flong`);
		const texts = (await page.evaluate(() => window.texts)).filter((each) => each.isLines);
		assert.ok(texts.some(({ text }) => /^\d+ min \d+ s$/.test(text)), `minutes at ${width}`);
		for (const { text, begin, end, room } of texts) {
			assert.ok(begin >= 0 && end <= room, `${text} at ${width} is cut off: ${begin} to ${end} of ${room}`);
		}
	}
	await page.setViewportSize({ width: 1280, height: 900 });
});

test('no line of the map runs under a box', async () => {
	const { page } = opened;
	for (const width of [1280, 390]) {
		await page.setViewportSize({ width, height: 900 });
		await show(page, `${collector.url}/map`);
		assert.ok((await page.locator('.map-line').count()) >= 6);
		assert.deepEqual(await page.evaluate(linesUnderBoxes), [], `at ${width}`);
	}
	const columns = await page.locator('.map-column').evaluateAll((list) => list.map((each) => each.getBoundingClientRect().right));
	assert.ok(columns[1] <= 390, 'on a narrow page what is called is seen beside who calls it');
	await page.setViewportSize({ width: 1280, height: 900 });
});

test('a comparison of two times says whose a page, a statement and an error is', async () => {
	const { page } = opened;
	const now = Date.now();
	const times = { what: 'windows', from1: now - 15 * 60000, to1: now - 6 * 60000, from2: now - 6 * 60000, to2: now };
	await show(page, `${collector.url}/compare?${new URLSearchParams(times)}`);
	const rows = page.getByRole('table', { name: 'Transactions before and after' }).locator('tbody tr');
	const named = await rows.evaluateAll((list) => list.map((row) => [row.querySelector('.main-cell').textContent, row.querySelector('[data-title=Application]')?.textContent]));
	assert.deepEqual(named.filter(([name]) => name === '/').map(([, application]) => application).sort(), ['Shop', 'Stock']);
	assert.ok((await page.getByRole('table', { name: 'Statements before and after' }).locator('[data-title=Application]').count()) > 0);
	await show(page, `${collector.url}/compare?${new URLSearchParams({ ...times, app: 'Shop' })}`);
	assert.equal(await page.locator('[data-title=Application]').count(), 0);
});

test('no more is to be gained than the request took', async () => {
	const { page } = opened;
	const { requests } = await collector.ask('/api/v1/requests', { q: 'txn:"/overlapping"' });
	assert.ok(requests[0].gain_ms > requests[0].duration_ms, 'calls that overlap take longer than their request');
	await show(page, `${collector.url}/request?id=${requests[0].id}`);
	assert.match(await page.locator('.verdict-gain').first().textContent(), /to gain, 100 %$/);
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
