/* A link to a request, and the browser's way back to it, have its view as it was left. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { again, Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { Requests, shopRequests } from './shop.mjs';
import { active, eventually, heard, heldIn, own, picture, told } from './trace_view.mjs';

const DEEP = 60;

let collector;
let browser;
let opened;
let ids;

function deepRequest() {
	const all = new Requests(8);
	const inside = (request, left) => (left > 0 ? request.inside(`Level::down${left}`, () => inside(request.code(1), left - 1)) : request.code(5));
	inside(all.begin(Date.now() - 60000, { application: 'Shop', name: '/deep' }), DEEP).end();
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take([...shopRequests(250, 40), ...deepRequest()]);
	const one = async (q) => (await collector.ask('/api/v1/requests', { q, order: 'slowest', limit: 1 })).requests[0];
	ids = Object.fromEntries(await Promise.all(['front:txn:"/"', 'cart:txn:/cart', 'order:txn:/order', 'deep:txn:/deep'].map(async (each) => {
		const [, name, q] = /^(\w+):(.*)$/.exec(each);
		return [name, (await one(q)).id];
	})));
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

const details = (page) => page.locator('.details').innerText();

test('what is chosen in the flame graph is chosen again, with findings and without', async () => {
	const answer = await collector.ask('/api/v1/request', { id: ids.front });
	assert.deepEqual(answer.findings, []);
	for (const [id, frame] of [[ids.front, /^View::render/], [ids.order, /^2 times Client::get/], [ids.cart, /times SELECT/]]) {
		const page = await open(`/request?id=${id}&view=flame&span=none`);
		for (const key of ['Home', 'ArrowDown', 'ArrowDown', 'ArrowDown']) {
			await page.keyboard.press(key);
			await page.waitForTimeout(60);
			if (frame.test(await active(page))) {
				break;
			}
		}
		await heard(page, frame);
		await page.waitForURL((url) => /^f/.test(url.searchParams.get('span') ?? ''));
		const left = [await details(page), await active(page), await picture(page)];
		await again(page, collector);
		await heard(page, frame);
		assert.deepEqual([await details(page), await active(page), await picture(page)], left);
		// In the waterfall it is the row of its calls.
		await page.keyboard.press('w');
		assert.equal(await details(page), left[0]);
	}
});

test('a flame graph is scrolled to where it was', async () => {
	const page = await open(`/request?id=${ids.deep}&view=flame`);
	const place = () => page.locator('.flame-scroll').evaluate((each) => each.scrollTop);
	await page.locator('.flame-scroll').evaluate((each) => each.scrollTo(0, 300));
	await page.waitForURL(/down=15/);
	await again(page, collector);
	await eventually(async () => assert.equal(await place(), 300));
	await page.locator('.flame-scroll').evaluate((each) => each.scrollTo(0, 0));
	await heldIn(page, 'down', '');
});

test('the statements of a request are sorted and opened as they were', async () => {
	const page = await open(`/request?id=${ids.order}&tab=sql`);
	await again(page, collector);
	const table = page.locator('.tab-panel .table');
	const answer = await collector.ask('/api/v1/request', { id: ids.order });
	assert.ok(answer.spans.some((span) => span.statement));
	await table.getByRole('button', { name: 'Statement', exact: true }).click();
	await table.getByRole('button', { name: 'Statement', exact: true }).click();
	await table.locator('.opener').first().click();
	const left = await table.innerText();
	assert.match(left, /INSERT\b[^]*Callers/);
	await again(page, collector);
	assert.equal(await table.innerText(), left);
	assert.equal(await table.locator('th[aria-sort=descending]').count(), 1);
	await table.locator('.opener').first().click();
	await again(page, collector);
	assert.equal(await table.locator('.details-row').count(), 0);
});

test('calls of a statement and of a function that were shown are marked again', async () => {
	for (const [tab, button] of [['sql', 'Show'], ['resources', 'View::render']]) {
		const page = await open(`/request?id=${ids.cart}&tab=${tab}`);
		await page.locator('.tab-panel:not([hidden])').getByRole('button', { name: button, exact: true }).first().click();
		await page.waitForURL(/marked=/);
		const marked = await picture(page);
		await again(page, collector);
		assert.equal(await picture(page), marked, tab);
		await page.evaluate(() => history.replaceState(null, '', location.href.replace(/&?marked=[^&]*/, '')));
		await again(page, collector);
		assert.notEqual(await picture(page), marked, `${tab}: marks are seen`);
	}
});

test('a call that was looked for is found again', async () => {
	const page = await open(`/request?id=${ids.cart}`);
	const find = page.locator('.find');
	await find.fill('SELECT');
	await heldIn(page, 'find', 'SELECT');
	await again(page, collector);
	assert.equal(await find.inputValue(), 'SELECT');
	const calls = (await collector.ask('/api/v1/request', { id: ids.cart })).spans.filter((span) => span.statement).length;
	assert.equal(await page.locator('.find + span').textContent(), `${calls} calls`);
	await find.press('Enter');
	await find.press('Enter');
	await told(page.locator('.find + span'), new RegExp(`^2 of ${calls} calls`));
	await page.waitForURL(/found=/);
	const left = [await page.locator('.find + span').textContent(), await details(page), await picture(page)];
	await again(page, collector);
	assert.deepEqual([await page.locator('.find + span').textContent(), await details(page), await picture(page)], left);
	await find.press('Enter');
	await told(page.locator('.find + span'), new RegExp(`^3 of ${calls} calls`));
	await find.press('Escape');
	await heldIn(page, 'find', '');
	await heldIn(page, 'found', '');
});

test('the way back has what was chosen then, and asks nothing anew', async () => {
	const page = await open(`/request?id=${ids.order}`);
	const asked = [];
	page.on('request', (request) => asked.push(new URL(request.url()).pathname));
	const application = page.getByRole('combobox', { name: 'Application' });
	await application.getByRole('option', { name: 'Shop' }).waitFor({ state: 'attached' });
	await page.keyboard.press('Home');
	await application.focus();
	await application.selectOption('Shop');
	const first = [await details(page), await active(page)];
	assert.match(first[1], /^POST \/order/);
	await page.waitForURL(/app=Shop/);
	assert.deepEqual([await details(page), await active(page)], first);
	await page.locator('h1').click();
	await page.keyboard.press('End');
	await page.keyboard.press('+');
	await page.waitForURL(/zoom=/);
	await page.getByRole('tab', { name: 'SQL' }).click();
	await heldIn(page, 'tab', 'sql');
	const second = own(page);
	await page.goBack();
	await page.waitForURL((url) => !url.searchParams.has('app'));
	await eventually(async () => assert.deepEqual([await page.locator('.details').textContent() && await details(page), await active(page)], first));
	assert.equal(await page.locator('.tab[aria-selected=true]').textContent(), 'Timeline');
	await page.goForward();
	await page.waitForURL(/app=Shop/);
	await eventually(async () => assert.match(await page.locator('.tab[aria-selected=true]').textContent(), /^SQL/));
	await page.waitForTimeout(400);
	assert.deepEqual(own(page), second);
	assert.ok(!asked.includes('/api/v1/request'), 'the request is there already');
	await page.locator('h1').click();
	await page.keyboard.press('r');
	await eventually(async () => assert.ok(asked.includes('/api/v1/request')));
	await settled(page);
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
