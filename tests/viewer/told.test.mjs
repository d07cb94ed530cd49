/* Signs and shapes that tell something: sparklines, percentiles on bars, levels of errors, what failed, shares of layers. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { Requests } from './shop.mjs';
import { percentile } from './shown_figures.mjs';

const MINUTE = 60000;
const STEP = 3 * MINUTE;
/* Of each application how many of its hundred requests fail, and the level that this is. */
const FAILING = { Sound: [0, ''], Shaky: [1, 'warn'], Broken: [12, 'bad'] };

let collector;
let browser;
let opened;
let to;

/* Requests that call a host which fails as often as they do. */
function failing(all, application, count) {
	for (let i = 0; i < 100; i++) {
		const isFailed = i < count;
		all.begin(to - (i % 50) * MINUTE - 20 * MINUTE, { application, name: `/of/${application}`, httpcode: isFailed ? 500 : 200 })
			.code(20)
			.inside('Client::get', (r) => r.call(`http://${application.toLowerCase()}.example/`, 10, isFailed ? 500 : 200))
			.end();
	}
}

/* Durations whose percentiles lie far within the bars of a histogram; by time they rise and fall. */
function waves(all) {
	for (let i = 0; i < 200; i++) {
		const minute = i % 40;
		const ms = i < 120 ? 23 : i < 192 ? 60 + 5 * (minute % 8) : i < 197 ? 240 : 620;
		const r = all.begin(to - (minute + 4) * MINUTE, { application: 'Waves', name: '/waves' }).code(ms - 12).statement('SELECT 1 FROM wave', 12);
		if (i < 120 && i % (2 + (minute % 7)) === 0) {
			r.inside('Wave::of', (each) => each.code(1), { if: 1, ei: [{ err_clz: 'Splash', str: 'wet', filename: '/srv/Wave.php', linenumber: 3, level: 'Warning' }] });
		}
		r.end();
	}
}

function layered(all) {
	const r = all.begin(to - 5 * MINUTE, { application: 'Layers', name: '/layers' }).code(100).statement('SELECT 1 FROM layer', 240).cache('Redis::get', 60);
	r.call('http://layers.example/', 400);
	r.end();
}

before(async () => {
	// Within a step: the pages have some of three minutes.
	to = Math.floor((Date.now() - MINUTE) / STEP) * STEP + MINUTE;
	const all = new Requests(5);
	for (const [application, [count]] of Object.entries(FAILING)) {
		failing(all, application, count);
	}
	waves(all);
	layered(all);
	collector = await Collector.start();
	await collector.take(all.lines);
	await collector.gathered('/api/v1/calls', 'hosts', Object.keys(FAILING).length + 1);
	await collector.gathered('/api/v1/errors', 'errors', 1);
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

const during = (more = {}) => String(new URLSearchParams({ from: to - 90 * MINUTE, to, ...more }));

/* The curve of a row as one value a step; what there is no step of is `without`. Counts of a step that goes on are
 * not shown. */
function stepsOf(curve, { from_ms: from, to_ms: end }, step, place, without) {
	const byTime = new Map(curve.map((each) => [each[0], each[place]]));
	const values = [];
	for (let at = Math.floor(from / step) * step; at < end; at += step) {
		const goesOn = without === 0 && at + step > end;
		values.push(goesOn ? null : (byTime.get(at) ?? without));
	}
	return values;
}

/* As high as its value is of the largest one, as far to the right as its step is of all; gaps where nothing is known. */
async function assertShape(line, values, what) {
	const { d, box } = await line.evaluate((svg) => ({ d: svg.querySelector('path').getAttribute('d'), box: svg.viewBox.baseVal.toJSON?.() ?? { width: svg.viewBox.baseVal.width, height: svg.viewBox.baseVal.height } }));
	const points = [...d.matchAll(/([ML])([\d.]+) ([\d.]+)/g)].map(([, how, x, y]) => ({ isBegin: how === 'M', x: Number(x), y: Number(y) }));
	const known = values.flatMap((value, i) => (value === null ? [] : [{ i, value }]));
	assert.equal(points.length, known.length, `${what}: ${d}`);
	const most = Math.max(...known.map(({ value }) => value));
	known.forEach(({ i, value }, at) => {
		const { x, y, isBegin } = points[at];
		assert.ok(Math.abs(x - 1 - (i / (values.length - 1)) * (box.width - 2)) < 0.1, `${what}: step ${i} is at ${x}`);
		assert.ok(Math.abs(box.height - 2 - y - (value / most) * (box.height - 4)) < 0.1, `${what}: ${value} of ${most} is at ${y}`);
		assert.equal(isBegin, i === 0 || values[i - 1] === null, `${what}: step ${i}`);
	});
	assert.ok(new Set(points.map(({ y }) => y)).size > 2, `${what} is flat`);
}

test('a sparkline is as high as each step\'s value', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/transactions?${during()}`);
	const top = await collector.ask('/api/v1/top', { from: String(to - 90 * MINUTE), to: String(to), step: STEP });
	const row = top.transactions.find((each) => each.transaction === '/waves');
	const line = page.locator('tr', { hasText: '/waves' }).locator('.sparkline');
	await assertShape(line, stepsOf(row.curve, top.range, STEP, 3, null), 'p95');
	// The same of the requests themselves.
	const { requests } = await collector.ask('/api/v1/requests', { q: 'txn:"/waves"', limit: 1000 });
	for (const [at, , , p95] of row.curve) {
		const own = requests.filter((each) => each.start_ms >= at && each.start_ms < at + STEP).map((each) => each.duration_ms);
		assert.ok(Math.abs(percentile(own, 0.95) - p95) <= 1 + p95 * 0.01, `${p95} is not that of ${own}`);
	}
	await show(page, `${collector.url}/errors?${during()}`);
	const { errors, range } = await collector.ask('/api/v1/errors', { from: String(to - 90 * MINUTE), to: String(to), step: STEP });
	const splash = errors.find((each) => each.type === 'Splash');
	await assertShape(page.locator('tr', { hasText: 'Splash' }).locator('.sparkline'), stepsOf(splash.curve, range, STEP, 1, 0), 'errors');
});

test('each percentile stands on the bar in which it is', async () => {
	const { page } = opened;
	const { requests } = await collector.ask('/api/v1/requests', { q: 'txn:"/waves"', limit: 1000 });
	const durations = requests.map((each) => each.duration_ms);
	await show(page, `${collector.url}/transaction?${during({ app: 'Waves', txn: '/waves' })}`);
	const bars = await page.locator('.histogram-column').evaluateAll((list) => list.map((each) => [each.title, each.querySelector('.histogram-marks').textContent]));
	const milliseconds = (text) => Number(text.split(' ')[0]) * (text.endsWith(' s') ? 1000 : 1);
	const found = {};
	for (const [title, names] of bars) {
		const [from, end] = /^(.*) to (.*?):/.exec(title).slice(1).map(milliseconds);
		for (const name of names.split(' ').filter(Boolean)) {
			assert.ok(!(name in found), `${name} stands twice`);
			found[name] = [from, end];
		}
	}
	assert.deepEqual(Object.keys(found).sort(), ['p50', 'p95', 'p99']);
	for (const [name, [from, end]] of Object.entries(found)) {
		const exact = percentile(durations, Number(name.slice(1)) / 100);
		assert.ok(exact >= from && exact < end, `${name} is ${exact}, and stands from ${from} to ${end}`);
	}
});

/* The level of an element by its colour: that of no other. */
async function levelOf(place) {
	return place.evaluate((element) => {
		const colour = (name) => {
			const probe = document.createElement('span');
			probe.style.color = `var(${name})`;
			element.append(probe);
			const { color } = getComputedStyle(probe);
			probe.remove();
			return color;
		};
		const own = getComputedStyle(element).color;
		return own === colour('--text') ? '' : ['warn', 'bad', 'good', 'muted'].find((each) => colour(`--${each}`) === own);
	});
}

test('shares of errors have the colour of their level', async () => {
	const { page } = opened;
	for (const [application, [count, level]] of Object.entries(FAILING)) {
		const host = `${application.toLowerCase()}.example`;
		const share = new RegExp(`^${count} %$`);
		const row = (text) => page.locator('tbody tr', { hasText: text }).locator('[data-title=Errors] span').first();
		const figure = (place) => place.locator('.figure', { has: page.locator('dt', { hasText: /^Errors$/ }) }).locator('dd');
		const places = {
			'/': () => figure(page.locator(`.application[aria-label="${application}"]`)),
			'/transactions': () => row(`/of/${application}`),
			'/external': () => row(host),
			'/map': () => row(host),
			'/transaction': () => figure(page.locator('.page')),
		};
		for (const [path, place] of Object.entries(places)) {
			await show(page, `${collector.url}${path}?${during(path === '/transaction' ? { app: application, txn: `/of/${application}` } : {})}`);
			assert.match(await place().textContent(), share, `${application} at ${path}`);
			assert.equal(await levelOf(place()), level, `${application} at ${path}`);
		}
	}
});

test('what failed has a cross in lists, and nothing else', async () => {
	const { page } = opened;
	const { requests } = await collector.ask('/api/v1/requests', { q: 'app:Broken', limit: 1000 });
	const failed = new Map(requests.map((each) => [each.id, each.failed]));
	assert.equal([...failed.values()].filter(Boolean).length, FAILING.Broken[0]);
	const crosses = () => page.locator('tbody tr').evaluateAll((list) =>
		list.map((row) => {
			const cell = row.querySelector('[data-title=Status]');
			return [new URL(row.querySelector('a[href*="/request?"]').href).searchParams.get('id'), cell.textContent.includes('✕') && cell.querySelector('[title="It failed"]') !== null];
		}),
	);
	await show(page, `${collector.url}/search?${during({ app: 'Broken' })}`);
	const shown = await crosses();
	assert.equal(shown.length, failed.size);
	assert.deepEqual(new Map(shown), failed);
	await show(page, `${collector.url}/transaction?${during({ app: 'Broken', txn: '/of/Broken', q: 'is:failed' })}`);
	const slowest = page.getByRole('table', { name: 'Slowest requests' });
	assert.equal(await slowest.locator('tbody tr').count(), 10);
	assert.equal(await slowest.locator('td', { hasText: '✕' }).count(), 10);
	await show(page, `${collector.url}/live`);
	await page.getByText('Listening').waitFor();
	const more = new Requests(8);
	failing(more, 'Later', 2);
	await collector.take(more.lines.slice(0, 5));
	await page.waitForFunction(() => document.querySelectorAll('tbody tr').length === 5);
	const { requests: later } = await collector.ask('/api/v1/requests', { q: 'app:Later' });
	assert.deepEqual(new Map(await crosses()), new Map(later.map((each) => [each.id, each.failed])));
});

test('each part of the bar of layers is as wide as its share', async () => {
	const { page } = opened;
	const { requests } = await collector.ask('/api/v1/requests', { q: 'app:Layers' });
	const { layers } = await collector.ask('/api/v1/request', { id: requests[0].id });
	const sum = Object.values(layers).reduce((all, each) => all + each, 0);
	const known = Object.entries(layers).filter(([, ms]) => ms > 0);
	assert.equal(known.length, 4);
	await show(page, `${collector.url}/request?id=${requests[0].id}`);
	const parts = await page.locator('.layer-bar').first().evaluate((bar) => {
		const { width } = bar.getBoundingClientRect();
		return [...bar.children].map((each) => [each.className.replace('layer-', ''), each.getBoundingClientRect().width / width]);
	});
	assert.deepEqual(parts.map(([layer]) => layer).sort(), known.map(([layer]) => layer).sort());
	for (const [layer, width] of parts) {
		assert.ok(Math.abs(width - layers[layer] / sum) < 0.01, `${layer}: ${width} is not ${layers[layer]} of ${sum}`);
	}
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
