/*
 * How long the viewer takes for a long request, and for the Overview of a store of a million, in
 * Chromium: node bench/viewer_speed.mjs --load FILE [--quick] [--json FILE]. FILE is the program of
 * bench/collector_load.cpp, which fills the store. KAQ_COLLECTOR names the collector,
 * KAQ_VIEWER_MODULES where the packages are if that is not viewer/, KAQ_CHROMIUM another browser
 * than Debian's.
 *
 * What opening takes ends with the frame in which the calls are drawn; `work` is the processor time of
 * the page's main thread and of the collector for it, which on a quiet machine is about the same.
 * Script of a frame is what runs in the page's own callbacks of events and frames between two frames;
 * frames themselves say little on a machine that draws without a GPU. A freeze is a task of the main
 * thread of 50 ms and more.
 */
import { readFileSync, writeFileSync } from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';
import { Collector, openPage, startBrowser } from '../tests/viewer/collector.mjs';
import { largeRequest } from '../tests/viewer/large.mjs';
import { measureOverview } from './viewer_overview.mjs';

const TARGETS = { overview_ms: 500, open_ms: 300, frame_ms: 8, freeze_ms: 200 };
const FRAMES = 120;
/* Of a machine that others use, too. */
const PATIENCE_MS = 120000;

/* Runs in the page before anything of it: adds up what its callbacks take. */
function watch() {
	const watched = { sum: 0, frames: [], tasks: [] };
	window.kaqWatched = watched;
	const timed = (callback) =>
		function (...given) {
			const begun = performance.now();
			try {
				return callback.apply(this, given);
			} finally {
				watched.sum += performance.now() - begun;
			}
		};
	const { addEventListener } = EventTarget.prototype;
	EventTarget.prototype.addEventListener = function (type, listener, options) {
		return addEventListener.call(this, type, typeof listener === 'function' ? timed(listener) : listener, options);
	};
	const { requestAnimationFrame } = window;
	window.requestAnimationFrame = (callback) => requestAnimationFrame.call(window, timed(callback));
	const frame = () => {
		if (watched.sum > 0) {
			watched.frames.push(watched.sum);
		}
		watched.sum = 0;
		requestAnimationFrame.call(window, frame);
	};
	requestAnimationFrame.call(window, frame);
	new PerformanceObserver((list) => list.getEntries().forEach((entry) => watched.tasks.push(entry.duration))).observe({ type: 'longtask', buffered: true });
}

/* Runs in the page: from the click on a link to the frame in which its calls are drawn. */
function clickAndWait(href) {
	window.kaqWatched.tasks.length = 0;
	const link = document.createElement('a');
	link.href = href;
	document.querySelector('main').append(link);
	return new Promise((done) => {
		const begun = performance.now();
		const look = () => {
			const canvas = document.querySelector('.waterfall-canvas');
			if (canvas && canvas.height > 0) {
				// It is drawn in the next frame's callbacks, and there after it.
				requestAnimationFrame(() => setTimeout(() => done(performance.now() - begun)));
			} else {
				requestAnimationFrame(look);
			}
		};
		link.click();
		look();
	});
}

function percentile(values, share) {
	const sorted = [...values].sort((one, other) => one - other);
	return sorted[Math.min(sorted.length - 1, Math.ceil(sorted.length * share) - 1)] ?? 0;
}

async function take(page) {
	return page.evaluate(() => {
		const { frames, tasks } = window.kaqWatched;
		const taken = { frames: [...frames], freeze: Math.max(0, ...tasks) };
		frames.length = 0;
		tasks.length = 0;
		return taken;
	});
}

/* What the page's main thread has worked, in milliseconds of processor time: on a machine that others
 * use, the wall says little. */
async function pageWork(page) {
	const session = await page.context().newCDPSession(page);
	await session.send('Performance.enable', { timeDomain: 'threadTicks' });
	return async () => {
		const { metrics } = await session.send('Performance.getMetrics');
		return metrics.find((each) => each.name === 'TaskDuration').value * 1000;
	};
}

const TICK_MS = 10;

/* The same of a process. */
function processWork(pid) {
	const fields = readFileSync(`/proc/${pid}/stat`, 'utf8').replace(/^.*\) /, '').split(' ');
	return (Number(fields[11]) + Number(fields[12])) * TICK_MS;
}

async function timeOpening(browser, collector, id, times) {
	const opened = [];
	const worked = [];
	let freeze = 0;
	for (let i = 0; i < times; i++) {
		const { page, close } = await openPage(browser, collector);
		await page.addInitScript(watch);
		await page.goto(`${collector.url}/search`);
		await sleep(700);
		const work = await pageWork(page);
		const before = { page: await work(), collector: processWork(collector.child.pid) };
		opened.push(await page.evaluate(clickAndWait, `/request?id=${id}`));
		worked.push((await work()) - before.page + processWork(collector.child.pid) - before.collector);
		await sleep(300);
		freeze = Math.max(freeze, (await take(page)).freeze);
		await close();
	}
	return { open_ms: percentile(opened, 0.5), open_worst_ms: Math.max(...opened), work_ms: percentile(worked, 0.5), freeze_ms: freeze };
}

/* The p95 of script a frame while somebody does this again and again. */
async function timeFrames(page, step) {
	await sleep(300);
	await take(page);
	for (let i = 0; i < FRAMES; i++) {
		await step(i);
		await page.evaluate(() => new Promise((done) => requestAnimationFrame(done)));
	}
	const { frames, freeze } = await take(page);
	return { frame_ms: percentile(frames, 0.95), freeze_ms: freeze };
}

async function timeUse(browser, collector, id) {
	const { page, problems, close } = await openPage(browser, collector);
	page.setDefaultTimeout(PATIENCE_MS);
	await page.addInitScript(watch);
	await page.goto(`${collector.url}/request?id=${id}`);
	await page.waitForSelector('.waterfall-scroll [role=treeitem]', { state: 'attached' });
	await page.locator('.waterfall-scroll').first().scrollIntoViewIfNeeded();
	const box = await page.locator('.waterfall-scroll').first().boundingBox();
	await page.mouse.move(box.x + box.width * 0.7, box.y + box.height * 0.5);
	const figures = {};
	const zoom = async (i) => {
		await page.keyboard.down('Control');
		await page.mouse.wheel(0, i % 60 < 30 ? -60 : 60);
		await page.keyboard.up('Control');
	};
	figures.scroll = await timeFrames(page, () => page.mouse.wheel(0, 90));
	figures.zoom = await timeFrames(page, zoom);
	await take(page);
	await page.keyboard.press('e');
	await sleep(600);
	figures.open_all = { freeze_ms: (await take(page)).freeze };
	figures['scroll, all open'] = await timeFrames(page, (i) => page.mouse.wheel(0, i % 2 ? 900 : 2500));
	figures['zoom, all open'] = await timeFrames(page, zoom);
	figures.steps = await timeFrames(page, () => page.keyboard.press('ArrowDown'));
	await take(page);
	await page.keyboard.press('f');
	await sleep(600);
	figures.flame = { freeze_ms: (await take(page)).freeze };
	await page.keyboard.press('s');
	await page.keyboard.type('price');
	await sleep(600);
	figures.find = { freeze_ms: (await take(page)).freeze };
	await close();
	if (problems.length > 0) {
		throw new Error(problems.join('\n'));
	}
	return figures;
}

function print(size, name, figures) {
	const spans = parseInt(size, 10);
	const shown = Object.entries(figures).map(([key, ms]) => {
		const target = TARGETS[key];
		const isMeant = target !== undefined && (key !== 'open_ms' || spans <= 10000) && (key !== 'frame_ms' || spans <= 10000);
		return `${key.replace(/_ms$/, '').replace('_', ' ')} ${ms.toFixed(1)} ms${isMeant ? ` (${ms <= target ? 'within' : 'ABOVE'} ${target})` : ''}`;
	});
	console.log(`  ${size.padStart(16)}  ${name.padEnd(18)} ${shown.join(', ')}`);
}

const isQuick = process.argv.includes('--quick');
const json = process.argv[process.argv.indexOf('--json') + 1];
const figures = {};
const collector = await Collector.start();
try {
	const browser = await startBrowser();
	try {
		for (const [spans, times] of [[10000, isQuick ? 2 : 7], [100000, isQuick ? 1 : 3]]) {
			const request = largeRequest(spans);
			await collector.take([request.line]);
			const begun = performance.now();
			const { spans: known } = await collector.ask('/api/v1/request', { id: request.id });
			if (known.length !== spans) {
				throw new Error(`${known.length} spans of ${spans} were kept`);
			}
			const own = { answer: { whole_ms: performance.now() - begun }, open: await timeOpening(browser, collector, request.id, times), ...(await timeUse(browser, collector, request.id)) };
			Object.entries(own).forEach(([name, each]) => print(`${spans} spans`, name, each));
			figures[spans] = own;
		}
		const load = process.argv[process.argv.indexOf('--load') + 1];
		const { requests, ...overview } = await measureOverview(browser, load, isQuick ? 50000 : 1000000);
		Object.entries(overview).forEach(([from, each]) => print(`${requests} requests`, `overview, ${from}`, each));
		figures.overview = { requests, ...overview };
	} finally {
		await browser.close();
	}
} finally {
	await collector.stop();
}
if (process.argv.includes('--json')) {
	writeFileSync(json, `${JSON.stringify(figures, null, '\t')}\n`);
}
