/* What somebody does with the pages: keys, search, live requests, themes, links. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { Requests, shopRequests } from './shop.mjs';
import { eventually } from './trace_view.mjs';

let collector;
let browser;
let opened;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(300, 40));
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

test('without a login the page says what to do', async () => {
	const context = await browser.newContext();
	const page = await context.newPage();
	await show(page, `${collector.url}/transactions`);
	assert.match(await page.locator('main').textContent(), /not logged in.*kaq open/s);
	await context.close();
});

test('a link from another site finds the browser logged in', async () => {
	const { page } = opened;
	const other = 'data:text/html,' + encodeURIComponent(`<a href="${collector.url}/transactions">there</a>`);
	await page.goto(other);
	await page.getByText('there').click();
	await settled(page);
	assert.ok(await page.locator('tbody tr').count());
	opened.problems.length = 0;
});

test('every key does what the help says', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions`);
	await page.keyboard.press('?');
	assert.ok(await page.locator('dialog[open]').isVisible());
	const text = await page.locator('dialog').textContent();
	for (const each of ['Search', 'Next row', 'Overview', 'This help']) {
		assert.ok(text.includes(each), each);
	}
	await page.keyboard.press('Escape');
	assert.equal(await page.locator('dialog[open]').count(), 0);
	await page.keyboard.press('ArrowDown');
	await page.keyboard.press('ArrowDown');
	const second = await page.locator('tbody tr').nth(1).locator('a').first().getAttribute('href');
	assert.equal(await page.evaluate(() => document.activeElement.getAttribute('href')), second);
	await page.keyboard.press('ArrowUp');
	await page.keyboard.press('Enter');
	await settled(page);
	assert.equal(new URL(page.url()).pathname, '/transaction');
	await page.keyboard.press('/');
	assert.equal(await page.evaluate(() => document.activeElement.getAttribute('aria-label')), 'Search requests');
	await page.keyboard.press('Escape');
	for (const [key, path] of [['o', '/'], ['t', '/transactions'], ['q', '/queries'], ['e', '/errors'], ['x', '/external'], ['m', '/map'], ['s', '/search'], ['l', '/live'], ['c', '/compare'], ['d', '/doctor']]) {
		await page.keyboard.press('g');
		await page.keyboard.press(key);
		await page.waitForURL((url) => url.pathname === path);
	}
	await settled(page);
	const from = () => Number(new URL(page.url()).searchParams.get('from'));
	await page.keyboard.press('[');
	const earlier = from();
	assert.ok(Math.abs(Date.now() - 90 * 60000 - earlier) < 60000);
	await page.keyboard.press(']');
	assert.ok(Math.abs(from() - earlier - 30 * 60000) < 60000);
	await settled(page);
});

test('asking anew shows what came meanwhile', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const before = parseInt(await page.getByRole('status').textContent(), 10);
	await collector.take(shopRequests(5, 1, Date.now(), 99));
	await page.locator('h1').click();
	await page.keyboard.press('r');
	await page.waitForFunction((count) => parseInt(document.querySelector('[role=status]').textContent, 10) > count, before);
});

test('asking anew offers the applications and hosts that came meanwhile', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions`);
	const offered = (name) => page.getByRole('combobox', { name }).locator('option').allTextContents();
	await page.waitForFunction(() => document.querySelectorAll('[aria-label=Application] option').length > 2);
	assert.ok(!(await offered('Application')).includes('Newcomer'));
	const all = new Requests(21);
	all.begin(Date.now() - 3000, { application: 'Newcomer', name: '/', http_host: 'new.example' }).code(20).end();
	await collector.take(all.lines);
	// Figures are told of a moment after the requests.
	await eventually(async () => {
		const { applications } = await collector.ask('/api/v1/applications', { from: '1h', limit: 1000 });
		assert.ok(applications.some((each) => each.application === 'Newcomer'));
	});
	await page.locator('h1').click();
	await page.keyboard.press('r');
	await eventually(async () => assert.ok((await offered('Application')).includes('Newcomer')));
	assert.ok((await offered('Host')).includes('new.example'));
	await settled(page);
});

test('asking anew finds what came meanwhile in a box, another box asks nothing', async () => {
	const { page } = opened;
	const box = (least) => [Date.now() - 36e5, Date.now() + 36e5, least, 1e6].join('~');
	await show(page, `${collector.url}/search?box=${box(0)}`);
	const inBox = () => page.locator('.selection b').textContent().then((text) => parseInt(text, 10));
	const before = await inBox();
	await collector.take(shopRequests(5, 1, Date.now(), 98));
	await page.locator('h1').click();
	await page.keyboard.press('r');
	await page.waitForFunction((count) => parseInt(document.querySelector('.selection b').textContent, 10) > count, before);
	const asked = [];
	page.on('request', (request) => asked.push(new URL(request.url()).pathname));
	await page.getByRole('button', { name: 'Clear' }).click();
	await page.waitForFunction(() => !document.querySelector('.selection'));
	assert.deepEqual(asked.filter((path) => path === '/api/v1/requests'), []);
});

test('trying again asks again for all that one answer is for', async () => {
	const { page } = opened;
	await page.route('**/api/v1/profile?*', (route) => route.abort());
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fcart`);
	assert.equal(await page.locator('.state-error').count(), 3);
	await page.unroute('**/api/v1/profile?*');
	for (let left = 3; left > 0; left--) {
		await page.getByRole('button', { name: 'Try again' }).first().click();
		await page.waitForFunction((count) => document.querySelectorAll('.state-error').length < count, left);
	}
	await page.locator('.icicle-box').first().waitFor();
	await page.route('**/api/v1/doctor*', (route) => route.abort());
	await show(page, `${collector.url}/doctor`);
	assert.equal(await page.locator('.state-error').count(), 2);
	await page.unroute('**/api/v1/doctor*');
	await page.getByRole('button', { name: 'Try again' }).first().click();
	await page.locator('.check').first().waitFor();
	opened.problems.length = 0; // The browser notes the failures itself.
});

test('the theme follows the system until it is chosen', async () => {
	const { page } = opened;
	const back = () => page.evaluate(() => getComputedStyle(document.documentElement).backgroundColor);
	await show(page, `${collector.url}/search`);
	const light = await back();
	await page.emulateMedia({ colorScheme: 'dark' });
	const dark = await back();
	assert.notEqual(light, dark);
	await page.locator('h1').click();
	await page.keyboard.press('d');
	assert.equal(await back(), light);
	await page.reload();
	await settled(page);
	assert.equal(await back(), light);
	await page.locator('h1').click();
	await page.keyboard.press('d');
	assert.equal(await back(), dark);
	await page.keyboard.press('d');
	await page.emulateMedia({ colorScheme: 'light' });
	assert.equal(await back(), light);
});

test('a query is completed, helped with, and its mistakes are told', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const field = page.getByRole('combobox', { name: 'Query' });
	await field.click();
	await field.pressSequentially('has:ver');
	await page.locator('.offer', { hasText: 'verdict' }).first().waitFor();
	await page.keyboard.press('ArrowDown');
	await page.keyboard.press('Enter');
	assert.match(await field.inputValue(), /^has:verdict/);
	await page.keyboard.press('Escape');
	await field.press('Enter');
	await settled(page);
	const expected = (await collector.ask('/api/v1/requests', { from: '1h', q: 'has:verdict', limit: 1000 })).requests.length;
	assert.equal(parseInt(await page.getByRole('status').textContent(), 10), expected);
	await field.fill('tnx:/cart');
	await field.press('Enter');
	await page.locator('.state-error').waitFor();
	assert.match(await page.locator('.state-error').textContent(), /unknown field 'tnx'/);
	opened.problems.length = 0; // The browser notes the refusal itself.
	await page.getByRole('button', { name: 'Language' }).click();
	assert.ok((await page.locator('dialog').textContent()).includes('is:failed'));
	await page.keyboard.press('Escape');
});

test('a box in the plot selects its requests, and the link holds it', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const box = await page.locator('.scatter-canvas').boundingBox();
	await page.mouse.move(box.x + box.width / 2, box.y + 5);
	await page.mouse.down();
	await page.mouse.move(box.x + box.width - 12, box.y + box.height - 25, { steps: 4 });
	await page.mouse.up();
	await settled(page);
	const said = parseInt(await page.locator('.selection b').textContent(), 10);
	const [from, to, least, most] = new URL(page.url()).searchParams.get('box').split('~').map(Number);
	const { requests } = await collector.ask('/api/v1/requests', { from: '1h', limit: 1000 });
	const within = requests.filter((each) => each.start_ms >= from && each.start_ms <= to && each.duration_ms >= least && each.duration_ms <= most);
	assert.ok(within.length > 0 && within.length < requests.length);
	assert.equal(said, within.length);
	await page.reload();
	await settled(page);
	assert.equal(parseInt(await page.locator('.selection b').textContent(), 10), said);
	await page.getByRole('button', { name: 'Clear' }).click();
	await settled(page);
	assert.equal(await page.locator('.selection').count(), 0);
});

test('what is searched in a box is in it, whatever the query is', async () => {
	const { page } = opened;
	const q = 'app:Worker OR app:Stock';
	await show(page, `${collector.url}/search?q=${encodeURIComponent(q)}&box=${[Date.now() - 36e5, Date.now(), 20, 1e6].join('~')}`);
	const said = parseInt(await page.locator('.selection b').textContent(), 10);
	assert.ok(said > 0);
	await page.getByRole('button', { name: 'Search in it' }).click();
	await settled(page);
	assert.equal(parseInt(await page.getByRole('status').textContent(), 10), said);
});

test('tab goes on through a query field in which nothing was written', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/search`);
	const field = page.getByRole('combobox', { name: 'Query' });
	await field.focus();
	await page.locator('[role=option]').first().waitFor();
	await page.keyboard.press('Tab');
	assert.equal(await field.inputValue(), '');
	assert.notEqual(await page.evaluate(() => document.activeElement?.getAttribute('role')), 'combobox');
});

test('live requests come by themselves, filtered, and stop while paused', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/live?q=${encodeURIComponent('app:Shop')}`);
	await page.getByText('Listening').waitFor();
	const lines = shopRequests(30, 1, Date.now(), 5);
	await collector.take(lines);
	await page.locator('tbody tr').first().waitFor();
	const shown = () => page.locator('tbody tr').count();
	await page.waitForTimeout(600);
	const shop = (await collector.ask('/api/v1/requests', { q: 'app:Shop', limit: 30 })).requests.length;
	assert.ok(shop > 0 && (await shown()) > 0);
	assert.deepEqual([...new Set(await page.locator('.application-cell').allTextContents())], ['Shop']);
	const before = await shown();
	await page.keyboard.press('p');
	await collector.take(shopRequests(10, 1, Date.now(), 6));
	await page.getByText(/Paused; [1-9]/).waitFor();
	assert.equal(await shown(), before);
	await page.keyboard.press('p');
});

test('a copied link shows the same at any later time', async () => {
	const { page } = opened;
	await page.context().grantPermissions(['clipboard-read', 'clipboard-write']);
	await show(page, `${collector.url}/transactions?sort=p95&app=Shop`);
	await page.getByRole('button', { name: 'Copy link' }).click();
	await page.getByText('Copied').waitFor();
	const link = new URL(await page.evaluate(() => navigator.clipboard.readText()));
	assert.equal(link.searchParams.get('sort'), 'p95');
	assert.equal(link.searchParams.get('app'), 'Shop');
	assert.ok(Math.abs(Number(link.searchParams.get('to')) - Date.now()) < 60000);
	assert.ok(Math.abs(Date.now() - 3600000 - Number(link.searchParams.get('from'))) < 60000);
});

test('what is dragged over a line becomes the time range', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/`);
	const box = await page.locator('.u-over').first().boundingBox();
	await page.mouse.move(box.x + box.width * 0.4, box.y + 20);
	await page.mouse.down();
	await page.mouse.move(box.x + box.width * 0.6, box.y + 20, { steps: 4 });
	await page.mouse.up();
	await page.waitForURL((url) => url.searchParams.has('to'));
	const { searchParams } = new URL(page.url());
	const length = (Number(searchParams.get('to')) - Number(searchParams.get('from'))) / 60000;
	assert.ok(length >= 10 && length <= 16, `${length} minutes`);
	await settled(page);
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
