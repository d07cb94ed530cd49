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

test('marks that come late do not stand under another kind', async () => {
	const { page } = opened;
	let isAnswered = false;
	await page.route('**/api/v1/marks?*', async (route) => {
		await new Promise((resolve) => setTimeout(resolve, 700));
		await route.continue().catch(() => undefined);
		isAnswered = true;
	});
	await page.goto(pathOf(TIMES));
	await page.getByRole('button', { name: 'Two requests' }).click();
	for (const end = Date.now() + 10000; !isAnswered && Date.now() < end; ) {
		await page.waitForTimeout(50);
	}
	await page.waitForTimeout(300);
	assert.ok(isAnswered);
	assert.equal(await page.locator('.marks').count(), 0);
	await page.unroute('**/api/v1/marks?*');
});

test('where there is nothing, it is said what to do', async () => {
	const { page } = opened;
	const old = release - 1000 * MINUTE;
	await show(page, pathOf({ what: 'windows', from1: old - MINUTE, to1: old, from2: old, to2: old + MINUTE, app: 'Other' }));
	assert.match(await page.locator('.state').textContent(), /either of these times.*Choose longer or other times.*all applications/);
	await show(page, `${collector.url}/external`);
	assert.match(await page.locator('.state').textContent(), /Take a longer time/);
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
