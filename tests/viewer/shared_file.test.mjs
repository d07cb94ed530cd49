/* Files that hold a request or a trace, and that recorded text stays text, in them and in the pages. */
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { pathToFileURL } from 'node:url';
import { promisify } from 'node:util';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { hostileRequest } from './hostile.mjs';
import { largeRequest } from './large.mjs';
import { layoutProblems } from './layout.mjs';
import { shopRequests } from './shop.mjs';
import { picture, rows } from './trace_view.mjs';

const run = promisify(execFile);
const VIEWS = ['', 'view=flame', 'tab=sql', 'tab=errors', 'tab=request', 'tab=resources'];

let collector;
let browser;
let directory;
let order;
const hostile = hostileRequest();
const large = largeRequest(10000);

before(async () => {
	directory = mkdtempSync(join(tmpdir(), 'kaq-file-'));
	collector = await Collector.start();
	await collector.take([...shopRequests(60, 30), hostile.line, large.line]);
	[order] = (await collector.ask('/api/v1/requests', { q: 'txn:/order', limit: 1 })).requests;
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
	rmSync(directory, { recursive: true, force: true });
});

/* As `kaq export` writes it. */
async function exported(id) {
	const { stdout } = await run(collector.program, ['export', '--format', 'html', id, '--store', collector.store], { timeout: 60000, maxBuffer: 1 << 28 });
	const path = join(directory, `${id}.html`);
	writeFileSync(path, stdout);
	return pathToFileURL(path).href;
}

/* From disk, with no network; whatever it asks for is a problem. */
async function openFile(address, options = {}) {
	const context = await browser.newContext({ viewport: { width: 1280, height: 900 }, offline: true, ...options });
	const page = await context.newPage();
	page.setDefaultTimeout(15000);
	const problems = [];
	page.on('pageerror', (error) => problems.push(error.message));
	page.on('console', (message) => message.type() === 'error' && problems.push(message.text()));
	page.on('request', (request) => request.url().split('#')[0] !== address.split('#')[0] && problems.push(`asked ${request.url()}`));
	await page.goto(address);
	await page.waitForSelector('.trace-page');
	return { page, problems, close: () => context.close() };
}

test('a file is reopened as it was left', async () => {
	const { page, problems, close } = await openFile(await exported(order.id));
	await page.getByRole('tab', { name: /^SQL/ }).click();
	const table = page.locator('.tab-panel .table');
	await table.getByRole('button', { name: 'Statement', exact: true }).click();
	await table.locator('.opener').first().click();
	const statements = await table.innerText();
	assert.match(statements, /Statement ▴/);
	await page.reload();
	await page.waitForSelector('.trace-page');
	assert.equal(await table.innerText(), statements);
	await table.getByRole('button', { name: 'Show', exact: true }).click();
	await page.waitForFunction(() => location.hash.includes('marked=statement'));
	const marked = await picture(page);
	await page.reload();
	await page.waitForSelector('.trace-page');
	assert.equal(await picture(page), marked);
	assert.deepEqual(problems, []);
	await close();
});

test('a file shows what the page shows', async () => {
	for (const [kind, id] of [['request', order.id], ['trace', order.trace_id], ['request', large.id]]) {
		const site = await openPage(browser, collector);
		await show(site.page, `${collector.url}/${kind}?id=${id}`);
		await site.page.waitForSelector('.trace-page');
		const { page, problems, close } = await openFile(await exported(id));
		assert.deepEqual(await rows(page), await rows(site.page));
		assert.equal(await page.locator('h1').textContent(), await site.page.locator('h1').textContent());
		assert.deepEqual(await page.locator('.verdict').allTextContents(), await site.page.locator('.verdict').allTextContents());
		await page.keyboard.press('f');
		await page.waitForFunction(() => location.hash.includes('view=flame'));
		assert.equal(await page.locator('a[href]').count(), 0, 'it leads nowhere');
		assert.deepEqual(problems, []);
		await close();
		await site.close();
	}
});

test('the button has the same file', async () => {
	const { page, close } = await openPage(browser, collector);
	await show(page, `${collector.url}/trace?id=${order.trace_id}`);
	await page.getByRole('button', { name: 'Share' }).click();
	const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('link', { name: /HTML file/ }).click()]);
	const body = (path) => readFileSync(path, 'utf8').replace(/"written_ms":\d+/, '').trim();
	await exported(order.trace_id);
	assert.ok(body(await download.path()) === body(join(directory, `${order.trace_id}.html`)));
	assert.match(download.suggestedFilename(), /^trace-\w+\.html$/);
	const formats = await page.locator('.downloads a').evaluateAll((links) => links.map((link) => new URL(link.href).searchParams.get('format')));
	assert.deepEqual(formats, ['html', 'speedscope', 'perfetto', 'json']);
	await close();
});

test('a file is whole in both themes and at both widths', async () => {
	const address = await exported(order.trace_id);
	for (const width of [1280, 390]) {
		for (const colorScheme of ['light', 'dark']) {
			const { page, problems, close } = await openFile(address, { viewport: { width, height: 800 }, colorScheme });
			assert.deepEqual(await page.evaluate(layoutProblems), []);
			assert.deepEqual(problems, []);
			await close();
		}
	}
});

test('everybody can use a file', async () => {
	// Its policy would keep the checking program out.
	const { page, close } = await openFile(await exported(order.trace_id), { bypassCSP: true });
	assert.deepEqual(await accessibilityProblems(page), []);
	await close();
});

test('the policy of a file lets nothing else run', async () => {
	const text = readFileSync(new URL(await exported(order.id)), 'utf8');
	writeFileSync(join(directory, 'added.html'), text.replace('</body>', '<script>window.hacked = 9</script><img src="http://127.0.0.1:9/x"></body>'));
	const context = await browser.newContext();
	const page = await context.newPage();
	const refused = [];
	page.on('console', (message) => refused.push(message.text()));
	await page.goto(pathToFileURL(join(directory, 'added.html')).href);
	await page.waitForSelector('.trace-page');
	assert.equal(await page.evaluate(() => window.hacked), undefined);
	assert.equal(refused.filter((each) => /Content Security Policy/.test(each)).length >= 2, true);
	await context.close();
});

test('what cannot be written is said', async () => {
	await assert.rejects(run(collector.program, ['export', '--format', 'html', 'ffffffffffffffff', '--store', collector.store]), /no request or trace/);
});

/* Anything that recorded text has made of itself. */
function effects() {
	const own = new Set(['SCRIPT', 'STYLE', 'LINK', 'META', 'TITLE', 'NOSCRIPT']);
	const strange = [...document.querySelectorAll('img, iframe, object, embed, svg[onload], [onerror], [onload], [onclick], base, form[action]')].map((each) => each.outerHTML.slice(0, 100));
	const scripts = [...document.body.querySelectorAll('script, style')].filter((each) => own.has(each.tagName) && each.type !== 'application/json' && /hacked|display:none/.test(each.textContent.slice(0, 200)));
	const links = [...document.querySelectorAll('a[href]')].filter((link) => !/^(https?:\/\/127\.0\.0\.1|file:|blob:)/.test(link.href)).map((link) => link.href.slice(0, 100));
	return { hacked: window.hacked ?? null, strange, scripts: scripts.length, links, isShown: getComputedStyle(document.querySelector('main')).display !== 'none' };
}

const NO_EFFECT = { hacked: null, strange: [], scripts: 0, links: [], isShown: true };

async function goThrough(page) {
	await page.keyboard.press('e');
	const all = await page.evaluate(() => document.querySelector('.waterfall-scroll').scrollHeight / 22);
	await page.keyboard.press('Home');
	for (let i = 0; i < Math.min(40, all); i++) {
		await page.keyboard.press('ArrowDown');
		await page.mouse.move(300, 500 + (i % 9) * 22);
	}
	for (const summary of await page.locator('main summary').all()) {
		await summary.click();
	}
}

for (const kind of ['request', 'trace', 'file of a request', 'file of a trace']) {
	test(`recorded text stays text: ${kind}`, { timeout: 180000 }, async () => {
		const id = kind.endsWith('trace') ? hostile.trace : hostile.id;
		const isFile = kind.startsWith('file');
		const file = isFile ? await exported(id) : '';
		const opened = isFile ? await openFile(file) : await openPage(browser, collector);
		const { page, problems } = opened;
		page.on('dialog', (dialog) => problems.push(`dialog ${dialog.message()}`));
		for (const view of VIEWS) {
			await page.goto(isFile ? 'about:blank' : `${collector.url}/doctor`);
			await page.goto(isFile ? `${file}#${view}` : `${collector.url}/${kind}?id=${id}&${view}`);
			await page.waitForSelector('.trace-page');
			await goThrough(page);
			assert.deepEqual(await page.evaluate(effects), NO_EFFECT, view);
			assert.equal(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth), true, `${view} is too wide`);
		}
		assert.ok((await page.locator('h1').textContent()).includes('<'), 'the attack is there to be seen');
		assert.deepEqual(problems.filter((each) => each !== 'asked about:blank'), []);
		await opened.close();
	});
}
