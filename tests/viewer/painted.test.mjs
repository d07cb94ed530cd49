/* What canvases show, held against the interface's answers: the critical path, marks, and what waited. */
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync, symlinkSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { drawn } from './canvas.mjs';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { Requests } from './shop.mjs';
import { assertFigure } from './shown_figures.mjs';

const MINUTE = 60000;
const WATERFALL = '.waterfall-scroll:not(.flame-scroll)';
/* Of its head and of each row, in pixels. */
const HEAD = 24;
const ROW = 22;
/* Of each request of "/wait", in milliseconds. */
const TIMES = { PHP: 20, database: 30, waiting: 50 };

let collector;
let browser;
let opened;
let to;
let engine;

/* A process that the collector takes for one of PHP that serves one request at a time. */
function startEngine() {
	const folder = mkdtempSync(join(tmpdir(), 'kaq-engine-'));
	const program = join(folder, 'php-stand-in');
	symlinkSync('/bin/sleep', program);
	const child = spawn(program, ['3600'], { stdio: 'ignore' });
	return {
		pid: child.pid,
		stop: () => {
			child.kill('SIGKILL');
			rmSync(folder, { recursive: true, force: true });
		},
	};
}

/* Calls that overlap: only the longest of them holds the request up. */
function overlapping(all, at) {
	const r = all.begin(at, { application: 'Paths', name: '/overlap' }).code(40);
	r.inside('Cart::load', () => r.code(20).statement('SELECT id FROM cart', 60).code(30));
	const begun = r.now;
	r.statement('SELECT amount FROM stock', 90);
	r.now = begun;
	r.inside('Prices::ask', () => r.code(10).statement('SELECT price FROM item', 150).code(20));
	r.code(60).inside('View::render', () => r.code(80)).end();
}

function repeating(all, at) {
	const r = all.begin(at, { application: 'Paths', name: '/repeat' }).code(100);
	for (let i = 0; i < 20; i++) {
		r.statement(`SELECT name FROM item WHERE id = ${i}`, 10);
	}
	r.code(300).statement('SELECT 1 FROM other', 100).end();
}

function requests() {
	const all = new Requests(5);
	overlapping(all, to - 10 * MINUTE);
	repeating(all, to - 10 * MINUTE);
	for (let minute = 2; minute < 55; minute++) {
		const at = to - minute * MINUTE;
		all.begin(at, { application: 'Waiter', name: '/wait', thread_id: engine.pid }).code(TIMES.PHP).statement('SELECT 1 FROM line', TIMES.database).wait(TIMES.waiting).end();
		all.begin(at, { application: 'Other', name: '/other' }).code(30).end();
	}
	return all.lines;
}

before(async () => {
	engine = startEngine();
	to = Math.floor(Date.now() / MINUTE) * MINUTE;
	collector = await Collector.start();
	await collector.take(requests());
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
	engine?.stop();
});

async function answerOf(name) {
	const { requests: found } = await collector.ask('/api/v1/requests', { q: `txn:"${name}"` });
	return collector.ask('/api/v1/request', { id: found[0].id });
}

/* Those that touch are one. */
function joined(ranges) {
	const all = [];
	for (const [from, end] of [...ranges].sort((one, other) => one[0] - other[0])) {
		if (all.length > 0 && from - all.at(-1)[1] < 1) {
			all.at(-1)[1] = Math.max(all.at(-1)[1], end);
		} else {
			all.push([from, end]);
		}
	}
	return all;
}

function assertRuns(found, expected, what) {
	const text = `${what}: ${JSON.stringify(found)} is not ${JSON.stringify(expected)}`;
	assert.equal(found.length, expected.length, text);
	found.forEach(([from, end], i) => assert.ok(Math.abs(from - expected[i][0]) <= 2 && Math.abs(end - expected[i][1]) <= 2, text));
}

test('the waterfall shows below each row when nothing else held the request up', async () => {
	const { page } = opened;
	const { request, spans, critical_path: path } = await answerOf('/overlap');
	await show(page, `${collector.url}/request?id=${request.id}&span=none&open=*`);
	const rows = page.locator(`${WATERFALL} [role=treeitem]`);
	await rows.nth(spans.length - 1).waitFor({ state: 'attached' });
	const texts = await rows.allTextContents();
	assert.equal(texts.length, spans.length);
	assert.equal(await page.locator(`${WATERFALL} .waterfall-space`).evaluate((each) => each.clientHeight), HEAD + spans.length * ROW);
	const canvas = page.locator(`${WATERFALL} canvas`);
	const [width, height] = await canvas.evaluate((each) => [each.clientWidth, each.clientHeight]);
	// Below the rows there is nothing but the line beside the names, and those of the axis.
	const [{ runs: lines }] = await canvas.evaluate(drawn, { names: ['--line'], band: [height - 3, height - 1] });
	const left = lines[0][0] + 1;
	const x = (ms) => left + (ms / request.duration_ms) * (width - left - 2);
	const silent = [];
	for (const [i, text] of texts.entries()) {
		const at = spans.findIndex((span, j) => text.startsWith(`${j === 0 ? `GET ${request.name}` : (span.statement ?? span.name)},`));
		assert.ok(at >= 0, text);
		const expected = joined(path.filter((step) => step.span === at).map((step) => [x(step.from_ms), x(step.to_ms)]));
		const [{ runs }] = await canvas.evaluate(drawn, { names: ['--path'], band: [HEAD + i * ROW, HEAD + (i + 1) * ROW] });
		assertRuns(runs.filter(([from]) => from >= left), expected, text);
		if (expected.length === 0) {
			silent.push(text);
		}
	}
	assert.equal(silent.length, 1);
	assert.match(silent[0], /^SELECT amount FROM stock/);
});

test('the little drawing shows when the calls were that a finding means', async () => {
	const { page } = opened;
	const { request, spans, findings } = await answerOf('/repeat');
	await show(page, `${collector.url}/request?id=${request.id}`);
	const canvas = page.locator('.minimap-canvas');
	const [width, height] = await canvas.evaluate((each) => [each.clientWidth, each.clientHeight]);
	const runs = async () => {
		await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve))));
		return (await canvas.evaluate(drawn, { names: ['--accent'], band: [height - 4, height] }))[0].runs;
	};
	assert.deepEqual(await runs(), []);
	const meant = findings[0].spans.map((span) => spans[span]);
	assert.equal(meant.length, 20);
	await page.locator('.verdict').first().click();
	const x = (ms) => (ms / request.duration_ms) * width;
	assertRuns(await runs(), joined(meant.map((span) => [x(span.start_ms), x(span.start_ms + span.duration_ms)])), 'marks');
	await page.locator('.verdict').first().click();
	assert.deepEqual(await runs(), []);
});

/* Where marks stand on a chart that begins and ends at these times. */
async function assertMarks(chart, times, begin, end, what) {
	const { left, width } = await chart.evaluate((element) => {
		const [all, over] = [element.querySelector('canvas').getBoundingClientRect(), element.querySelector('.u-over').getBoundingClientRect()];
		return { left: over.left - all.left, width: over.width };
	});
	const [{ runs }] = await chart.locator('canvas').evaluate(drawn, { names: ['--mark'] });
	const expected = times.map((time) => left + ((time - begin) / (end - begin)) * width);
	assertRuns(runs, expected.map((x) => [x - 3, x + 3]), what);
}

test('marks stand on every chart at their times, those of another application on none', async () => {
	const { page } = opened;
	const from = to - 60 * MINUTE;
	const marks = [['', 50], ['Waiter', 31], ['Other', 12], ['', 0.3]].map(([app, minutes]) => ({ app, time: to - minutes * MINUTE }));
	for (const { app, time } of marks) {
		await collector.tell('/api/v1/mark', { text: `release of ${app || 'all'}`, time: String(time), ...(app ? { app } : {}) });
	}
	const times = (name) => marks.filter(({ app }) => app === '' || app === name).map(({ time }) => time);
	await show(page, `${collector.url}/?from=${from}&to=${to}`);
	for (const name of ['Waiter', 'Other']) {
		const charts = page.locator(`.application[aria-label="${name}"] .lines-plot`);
		assert.equal(await charts.count(), 4);
		for (let i = 0; i < 4; i++) {
			await assertMarks(charts.nth(i), times(name), from, to, `chart ${i} of ${name}`);
		}
	}
	await show(page, `${collector.url}/transaction?app=Waiter&txn=%2Fwait&from=${from}&to=${to}`);
	const charts = page.locator('.charts-3 .lines-plot');
	assert.equal(await charts.count(), 3);
	for (let i = 0; i < 3; i++) {
		await assertMarks(charts.nth(i), times('Waiter'), from, to, `chart ${i} of /wait`);
	}
});

test('what waited is a layer of its own, as wide as it took', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transaction?app=Waiter&txn=%2Fwait`);
	const legend = await page.locator('.layer-sums > span').allTextContents();
	assert.deepEqual(legend.map((text) => text.split(' ')[0]), Object.keys(TIMES));
	const sum = Object.values(TIMES).reduce((all, each) => all + each);
	legend.forEach((text, i) => {
		const [, name, took, part] = /^(\S+) (\S+ ms) (\S+ %)$/.exec(text);
		assertFigure(took, TIMES[name], name);
		assertFigure(part, TIMES[name] / sum, `${name}, ${i}`);
	});
	const chart = page.getByRole('img', { name: /^Time per request by what took it/ });
	for (const [name, ms] of Object.entries(TIMES)) {
		assert.ok((await chart.getAttribute('aria-label')).includes(`${name}: ${ms} ms to ${ms} ms`), name);
	}
	const found = await chart.locator('canvas').evaluate(drawn, { names: ['--layer-code', '--layer-database', '--layer-waiting'] });
	const all = found.reduce((points, each) => points + each.points, 0);
	Object.values(TIMES).forEach((ms, i) => assert.ok(Math.abs(found[i].points / all - ms / sum) < 0.05, `${found[i].points} of ${all} are not ${ms} of ${sum} ms`));
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
