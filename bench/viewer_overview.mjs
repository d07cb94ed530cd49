/*
 * How long the Overview takes on a store of many requests of a day: from the address to the frame in
 * which every panel has what it asked for and its lines are drawn, in a browser that knows the pages.
 */
import { execFile } from 'node:child_process';
import { promisify } from 'node:util';
import { setTimeout as sleep } from 'node:timers/promises';
import { Collector, openPage } from '../tests/viewer/collector.mjs';

const run = promisify(execFile);
const TOGETHER = 20000;
const SECONDS = 86400 - 600;
const FILL_MS = 1800000;
const QUIET_MS = 5000;
/* Of those that were sent. */
const LEAST = 0.95;
const TIMES = 9;
const PATIENCE_MS = 120000;

/* Small requests, no faster than they are taken. */
async function fill(collector, load, count) {
	const put = async () => (await collector.ask('/api/v1/status')).store.requests_put;
	/* Until there are so many, or no more come. */
	const until = async (least) => {
		let [known, since] = [-1, Date.now()];
		for (let now = await put(); now < least && Date.now() - since < QUIET_MS; now = await put()) {
			[known, since] = [now, now === known ? since : Date.now()];
			await sleep(50);
		}
	};
	let refused = 0;
	for (let begin = 0; begin < count; begin += TOGETHER) {
		const end = Math.min(begin + TOGETHER, count);
		const { stdout } = await run(load, ['fill', collector.data, begin, end, count, SECONDS].map(String), { timeout: FILL_MS });
		refused += Number(stdout.split(' ')[1]);
		await until(begin - refused);
	}
	await until(count - refused);
	await sleep(QUIET_MS);
	const stored = await put();
	if (stored < count * LEAST) {
		throw new Error(`the store took ${stored} requests of ${count}`);
	}
	return stored;
}

/* Runs in the page: when the first frame came in which everything is there, since the address was gone to. */
function whenDrawn() {
	return new Promise((done) => {
		const look = () => {
			const isWaiting = document.querySelector('[aria-busy="true"]') || !document.querySelector('main .finding, main .state');
			const charts = [...document.querySelectorAll('.lines-plot')];
			if (isWaiting || charts.length === 0 || !charts.every((each) => each.querySelector('canvas'))) {
				requestAnimationFrame(look);
			} else {
				// It is drawn in the next frame's callbacks, and there after it.
				requestAnimationFrame(() => setTimeout(() => done(performance.now())));
			}
		};
		look();
	});
}

async function timeOf(page, collector, from) {
	await page.goto(`${collector.url}/doctor`);
	await page.waitForSelector('main *');
	await page.goto(`${collector.url}/?from=${from}`, { waitUntil: 'commit' });
	return page.evaluate(whenDrawn);
}

/* The median and the longest, for an hour and for a day of it. */
export async function measureOverview(browser, load, count) {
	const collector = await Collector.start();
	try {
		const requests = await fill(collector, load, count);
		const { page, problems, close } = await openPage(browser, collector);
		page.setDefaultTimeout(PATIENCE_MS);
		const figures = { requests };
		for (const from of ['1h', '24h']) {
			const times = [];
			for (let i = 0; i < TIMES; i++) {
				times.push(await timeOf(page, collector, from));
			}
			times.sort((one, other) => one - other);
			figures[from] = { overview_ms: times[Math.floor(TIMES / 2)], overview_worst_ms: times.at(-1) };
		}
		await close();
		if (problems.length > 0) {
			throw new Error(problems.join('\n'));
		}
		return figures;
	} finally {
		await collector.stop();
	}
}
