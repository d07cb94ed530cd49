/* What is drawn of lines over time: every value that is known, also of an application that rests. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
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

/* How many points of the canvas have each of the colours, and in how many places beside each other. */
function drawn(canvas, names) {
	const { data, width } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
	const probe = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
	return names.map((name) => {
		canvas.style.color = `var(${name})`;
		probe.fillStyle = getComputedStyle(canvas).color;
		probe.fillRect(0, 0, 1, 1);
		const [red, green, blue] = probe.getImageData(0, 0, 1, 1).data;
		const columns = new Set();
		let points = 0;
		for (let i = 0; i < data.length; i += 4) {
			if (Math.abs(data[i] - red) + Math.abs(data[i + 1] - green) + Math.abs(data[i + 2] - blue) < 24 && data[i + 3] > 200) {
				points++;
				columns.add((i / 4) % width);
			}
		}
		const places = [...columns].filter((column) => !columns.has(column - 1)).length;
		return { points, places };
	});
}

const chartOf = (application, label) => opened.page.locator(`.application[aria-label="${application}"]`).getByRole('img', { name: label }).locator('canvas');

test('a value between steps without requests is drawn', async () => {
	await show(opened.page, `${collector.url}/`);
	for (const [application, label, name] of [['Broken', 'Share of failed', '--bad'], ['Quiet', 'Durations', '--line-1'], ['Quiet', 'Apdex', '--good']]) {
		const [found] = await chartOf(application, label).evaluate(drawn, [name]);
		assert.ok(found.points >= 16, `${application}, ${label}: ${found.points} points`);
		assert.equal(found.places, 2, `${application}, ${label}`);
	}
});

test('lines that lie over each other are all seen', async () => {
	await show(opened.page, `${collector.url}/`);
	for (const application of ['Quiet', 'Steady']) {
		const found = await chartOf(application, 'Durations').evaluate(drawn, ['--line-1', '--line-2', '--line-3']);
		found.forEach(({ points }, i) => assert.ok(points >= 10, `${application}: ${points} of line ${i + 1}`));
	}
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
