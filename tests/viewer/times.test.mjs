/* Moments have their exact time on hover, in the viewer's zone; what failed says when. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { Requests } from './shop.mjs';

const BEGUN = Date.now() - 600123;
const FAILED_MS = 37;
/* Half an hour beside the hours of others. */
const ZONE = 'Asia/Kolkata';

let collector;
let browser;
let opened;

function failing(all, at) {
	const failure = { err_clz: 'OutOfStock', str: 'no more', filename: '/srv/Stock.php', linenumber: 7, level: 'Error', time: at + FAILED_MS };
	const untimed = { err_clz: 'Untimed', str: 'when nobody knows', level: 'Error' };
	all.begin(at, { application: 'Shop', name: '/order' })
		.code(12)
		.inside('Stock::reserve', (r) => r.code(50), { if: 1, ei: [failure, untimed] })
		.code(9)
		.end();
}

before(async () => {
	collector = await Collector.start();
	const all = new Requests(4);
	failing(all, BEGUN);
	failing(all, BEGUN + 90456);
	await collector.take(all.lines);
	browser = await startBrowser();
	opened = await openPage(browser, collector, { timezoneId: ZONE });
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* As somebody there would write it. */
function exactly(ms) {
	const there = new Date(ms + 5.5 * 3600000).toISOString();
	return `${there.slice(0, 10)} ${there.slice(11, 23)} +05:30`;
}

const hovers = (place) => place.locator('time').evaluateAll((list) => list.map((each) => each.title));

test('an error that is opened says exactly when it was seen', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/errors`);
	await page.locator('tr', { hasText: 'OutOfStock' }).locator('.opener').click();
	const { errors } = await collector.ask('/api/v1/errors', { from: '1h' });
	const group = errors.find((each) => each.type === 'OutOfStock');
	assert.ok(group.first_ms < group.last_ms);
	assert.deepEqual(await hovers(page.locator('.details-row p', { hasText: 'Seen from' })), [exactly(group.first_ms), exactly(group.last_ms)]);
});

test('the times of a box are exact on hover', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search?box=${[BEGUN - 5, BEGUN + 11, 0, 1000].join('~')}`);
	assert.deepEqual(await hovers(page.locator('.selection')), [exactly(BEGUN - 5), exactly(BEGUN + 11)]);
});

test('the plot of requests tells exactly when the one under the pointer began', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const box = await page.locator('.scatter-canvas').boundingBox();
	const said = page.locator('.scatter-readout');
	for (let x = box.width - 10; x > 0 && !/Shop/.test(await said.textContent()); x -= 6) {
		for (let y = 10; y < box.height - 20 && !/Shop/.test(await said.textContent()); y += 6) {
			await page.mouse.move(box.x + x, box.y + y);
		}
	}
	const text = await said.textContent();
	assert.ok([BEGUN, BEGUN + 90456].some((ms) => text.endsWith(exactly(ms))), text);
});

test('the range says exactly from when to when it is', async () => {
	const { page } = opened;
	const range = page.getByRole('combobox', { name: 'Time range' });
	await show(page, `${collector.url}/errors?from=${BEGUN}&to=${BEGUN + 5000}`);
	await range.hover();
	assert.equal(await range.getAttribute('title'), `${exactly(BEGUN)} to ${exactly(BEGUN + 5000)}`);
	await show(page, `${collector.url}/errors?from=15m`);
	await page.waitForTimeout(1100);
	await page.mouse.move(0, 0);
	await range.hover();
	const [from, to] = (await range.getAttribute('title')).split(' to ').map((text) => Date.parse(text.replace(' ', 'T').replace(' ', '')));
	assert.equal(to - from, 15 * 60000);
	assert.ok(Math.abs(Date.now() - to) < 1000, 'it is now that it ends');
	await show(page, `${collector.url}/errors?from=nonsense`);
	assert.equal(await range.getAttribute('title'), null);
	opened.problems.length = 0; // The browser notes the refusal itself.
});

test('what failed says when, where it is known', async () => {
	const { page } = opened;
	const { requests } = await collector.ask('/api/v1/requests', {});
	const request = requests.find((each) => each.start_ms === BEGUN);
	for (const [path, place] of [[`/request?id=${request.id}&tab=errors`, '.errors'], [`/trace?id=${request.trace_id}`, '.details']]) {
		await show(page, collector.url + path);
		const failures = page.locator(`${place} .failure`);
		const timed = failures.filter({ hasText: 'OutOfStock' });
		assert.match(await timed.textContent(), new RegExp(`${FAILED_MS} ms after the begin`), path);
		assert.deepEqual(await hovers(timed), [exactly(BEGUN + FAILED_MS)]);
		assert.deepEqual(await hovers(failures.filter({ hasText: 'Untimed' })), []);
		assert.deepEqual(await page.evaluate(layoutProblems), []);
		assert.deepEqual(await accessibilityProblems(page), []);
	}
});

test('where no error is, the page says what to do next', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/errors?from=${BEGUN - 9e5}&to=${BEGUN - 6e5}&app=Shop`);
	const state = page.locator('.state');
	assert.match(await state.textContent(), /No error and no exception in this time\..*longer time, or all applications/s);
	await state.getByRole('link', { name: 'requests that failed' }).click();
	await page.waitForURL(/\/search\?.*q=is%3Afailed/);
	await show(page, `${collector.url}/errors?from=${BEGUN - 9e5}&to=${BEGUN - 6e5}`);
	assert.doesNotMatch(await state.textContent(), /all applications/);
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
