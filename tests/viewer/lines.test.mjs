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

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
