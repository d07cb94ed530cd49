/* The map where services call each other, or themselves: every line leads from who calls to who is called. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { layoutProblems, linesUnderBoxes } from './layout.mjs';
import { Requests } from './shop.mjs';

/* Two that call each other, one that calls itself, and a circle in which one calls back over another. */
const CALLS = [
	['Front', 'Ping'], ['Ping', 'Pong'], ['Pong', 'Ping'],
	['Selfie', 'Selfie'], ['Front', 'Selfie'],
	['Front', 'Alpha'], ['Alpha', 'Beta'], ['Beta', 'Gamma'], ['Gamma', 'Alpha'], ['Gamma', 'Beta'], ['Gamma', 'Gamma'], ['Gamma', 'Front'],
	['Beta', 'pay.example'], ['Front', 'pay.example'],
];

let collector;
let browser;

function circles() {
	const all = new Requests(9);
	const at = Date.now() - 600000;
	for (const [i, name] of [...new Set(CALLS.map(([from]) => from))].entries()) {
		const request = all.begin(at + 50 * i, { application: name, name: '/', http_host: `${name.toLowerCase()}.example` });
		request.code(8);
		for (const [, to] of CALLS.filter(([from]) => from === name)) {
			for (let times = 0; times < 40; times++) {
				request.call(to.includes('.') ? `https://${to}/` : `http://${to.toLowerCase()}.example/`, 1230 + 10 * i, to === 'Ping' || name === to ? 503 : 200);
			}
		}
		request.end();
	}
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(circles());
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* From which box to which each line leads, as `from > to`. Runs within the page. */
function ends() {
	const plane = document.querySelector('.map-plane').getBoundingClientRect();
	const boxes = [...document.querySelectorAll('.map-node')].map((box) => ({ name: box.querySelector('b').textContent, area: box.getBoundingClientRect() }));
	const at = ({ x, y }) => {
		const [left, top] = [x + plane.left, y + plane.top];
		const near = boxes.filter(({ area }) => left > area.left - 5 && left < area.right + 5 && top > area.top - 5 && top < area.bottom + 5);
		return near.length === 1 ? near[0].name : `${near.length} boxes at ${Math.round(x)} ${Math.round(y)}`;
	};
	return [...document.querySelectorAll('.map-line')].map((path) => `${at(path.getPointAtLength(0))} > ${at(path.getPointAtLength(path.getTotalLength()))}`);
}

/* Figures that are cut off, or lie over a box or over each other; lines that leave the map. Runs within the page. */
function overlaps() {
	const found = [];
	const plane = document.querySelector('.map-plane').getBoundingClientRect();
	const isOutside = (area) => area.left < plane.left || area.right > plane.right || area.top < plane.top || area.bottom > plane.bottom;
	const named = (selector) => [...document.querySelectorAll(selector)].filter((each) => each.checkVisibility()).map((each) => ({ name: each.textContent, area: each.getBoundingClientRect() }));
	const labels = named('.map-label');
	const isOver = (one, other) => Math.min(one.right, other.right) - Math.max(one.left, other.left) > 1 && Math.min(one.bottom, other.bottom) - Math.max(one.top, other.top) > 2;
	labels.forEach(({ name, area }, i) => {
		if (isOutside(area)) {
			found.push(`${name} is cut off`);
		}
		for (const other of [...named('.map-node'), ...labels.slice(0, i)]) {
			if (isOver(area, other.area)) {
				found.push(`${name} over ${other.name}`);
			}
		}
	});
	for (const { area } of named('.map-line')) {
		if (isOutside(area)) {
			found.push('a line leaves the map');
		}
	}
	return found;
}

for (const [width, height] of [[1280, 900], [390, 800]]) {
	for (const colorScheme of ['light', 'dark']) {
		test(`calls back and to itself are seen at ${width} pixels in the ${colorScheme} theme`, { timeout: 120000 }, async () => {
			const { page, problems, close } = await openPage(browser, collector, { viewport: { width, height }, colorScheme });
			await show(page, `${collector.url}/map`);
			assert.deepEqual((await page.evaluate(ends)).sort(), CALLS.map(([from, to]) => `${from} > ${to}`).sort());
			assert.deepEqual(await page.evaluate(linesUnderBoxes), []);
			assert.deepEqual(await page.evaluate(overlaps), []);
			assert.equal(await page.locator('.map-arrow').count(), CALLS.length);
			// On a narrow page the table alone has the figures.
			assert.equal(await page.locator('.map-label:visible').count(), width > 620 ? CALLS.length : 0);
			assert.deepEqual(await page.evaluate(layoutProblems), []);
			assert.deepEqual(await accessibilityProblems(page), []);
			assert.deepEqual(problems, []);
			await close();
		});
	}
}
