/* The form in which two times are chosen, and what is said where there is nothing to compare. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { Requests } from './shop.mjs';

const MINUTE = 60000;
/* Neither at the begin of a minute nor of a second. */
const release = Math.floor(Date.now() / MINUTE) * MINUTE - 10 * MINUTE + 36250;

let collector;
let browser;
let opened;

before(async () => {
	const all = new Requests(6);
	for (const at of [-30000, -2000, -100, 100, 2000, 9000]) {
		all.begin(release + at, { application: 'Shop', name: '/p' }).code(at < 0 ? 20 : 40).end();
	}
	collector = await Collector.start();
	await collector.take(all.lines);
	await collector.tell('/api/v1/mark', { text: 'release 7', time: String(release) });
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

const TIMES = { what: 'windows', from1: release - 5 * MINUTE, to1: release, from2: release, to2: release + 5 * MINUTE };
const pathOf = (times) => `${collector.url}/compare?${new URLSearchParams(times)}`;
const timesOf = (page) => Object.fromEntries(new URL(page.url()).searchParams);

test('comparing again with nothing changed compares the same times', async () => {
	const { page } = opened;
	await show(page, pathOf(TIMES));
	const said = await page.locator('main .panel').textContent();
	await page.getByRole('button', { name: 'Compare', exact: true }).click();
	await settled(page);
	const after = timesOf(page);
	assert.deepEqual(Object.fromEntries(Object.keys(TIMES).map((name) => [name, after[name]])), Object.fromEntries(Object.entries(TIMES).map(([name, value]) => [name, String(value)])));
	assert.equal(await page.locator('main .panel').textContent(), said);
});

test('a time can be chosen to the second', async () => {
	const { page } = opened;
	await show(page, pathOf(TIMES));
	const field = page.locator('input[name=from2]');
	const value = await field.inputValue();
	assert.match(value, /:36$/);
	await field.fill(value.replace(/:36$/, ':41'));
	await page.getByRole('button', { name: 'Compare', exact: true }).click();
	await settled(page);
	assert.equal(Number(timesOf(page).from2), release - 250 + 5000);
	assert.equal(timesOf(page).to1, String(release));
});

for (const width of [1280, 390]) {
	test(`the form fits on ${width} pixels`, async () => {
		const { page, close } = await openPage(browser, collector, { viewport: { width, height: 800 } });
		await show(page, pathOf(TIMES));
		assert.equal(await page.locator('input[type=datetime-local]').count(), 4);
		assert.deepEqual(await page.evaluate(layoutProblems), []);
		await close();
	});
}

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
