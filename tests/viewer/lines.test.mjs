/* What is drawn of lines over time: every value that is known, also of an application that rests. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { drawn } from './canvas.mjs';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { Requests } from './shop.mjs';

let collector;
let browser;
let opened;

/* One request now and then; all of "Broken" fail. */
function seldom() {
	const all = new Requests();
	for (const minutes of [40, 15]) {
		for (const [application, httpcode] of [['Quiet', 200], ['Broken', 500]]) {
			all.begin(Date.now() - minutes * 60000, { application, name: '/seldom', httpcode }).code(120).end();
		}
	}
	for (let minute = 5; minute < 50; minute++) {
		all.begin(Date.now() - minute * 60000, { application: 'Steady', name: '/steady' }).code(80 + minute).end();
	}
	for (const minutes of [52, 45, 44, 43, 42, 12, 9, 8, 7]) {
		all.begin(Date.now() - minutes * 60000, { application: 'Paused', name: '/paused' }).code(80).statement('SELECT 1', 40).end();
	}
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(seldom());
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

const chartOf = (application, label) => opened.page.locator(`.application[aria-label="${application}"]`).getByRole('img', { name: label }).locator('canvas');

test('a value between steps without requests is drawn', async () => {
	await show(opened.page, `${collector.url}/`);
	for (const [application, label, name] of [['Broken', 'Share of failed', '--bad'], ['Quiet', 'Durations', '--line-1'], ['Quiet', 'Apdex', '--good']]) {
		const [found] = await chartOf(application, label).evaluate(drawn, { names: [name] });
		assert.ok(found.points >= 16, `${application}, ${label}: ${found.points} points`);
		assert.equal(found.runs.length, 2, `${application}, ${label}`);
	}
});

test('lines that lie over each other are all seen', async () => {
	await show(opened.page, `${collector.url}/`);
	for (const application of ['Quiet', 'Steady']) {
		const found = await chartOf(application, 'Durations').evaluate(drawn, { names: ['--line-1', '--line-2', '--line-3'] });
		found.forEach(({ points }, i) => assert.ok(points >= 10, `${application}: ${points} of line ${i + 1}`));
	}
});

/* Parts of the range beside each other that have requests, as shares of it. */
function knownParts({ range, points }) {
	const part = Math.ceil((range.to_ms + 1 - range.from_ms) / 24);
	const known = new Set(points.map((each) => Math.round((each.time_ms - range.from_ms) / part)));
	const begins = [...known].filter((each) => !known.has(each - 1)).sort((one, other) => one - other);
	return begins.map((begin) => {
		let end = begin;
		while (known.has(end)) {
			end++;
		}
		return [begin / 24, end / 24];
	});
}

test('where the time goes is told of the times with requests alone', async () => {
	const { page } = opened;
	const range = { from: String(Date.now() - 55 * 60000), to: String(Date.now()) };
	const expected = knownParts(await collector.ask('/api/v1/profile', { ...range, app: 'Paused', txn: '/paused' }));
	assert.ok(expected.length >= 3, 'there are times without requests');
	await show(page, `${collector.url}/transaction?${new URLSearchParams({ ...range, app: 'Paused', txn: '/paused' })}`);
	const canvas = page.getByRole('img', { name: 'Time per request by what took it' }).locator('canvas');
	const { left, width } = await canvas.evaluate((each) => {
		const [room, whole] = [each.parentElement.querySelector('.u-over').getBoundingClientRect(), each.getBoundingClientRect()];
		return { left: room.left - whole.left, width: room.width };
	});
	for (const { runs } of await canvas.evaluate(drawn, { names: ['--layer-code', '--layer-database'] })) {
		assert.equal(runs.length, expected.length);
		runs.forEach((run, i) => run.forEach((at, j) => assert.ok(Math.abs((at - left) / width - expected[i][j]) < 0.01, `${run} is not ${expected[i]}`)));
	}
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
