/* Pictures of every page: node screenshots.mjs DIRECTORY [WIDTH...]. KAQ_COLLECTOR names the collector. */
import { mkdirSync } from 'node:fs';
import { join, resolve } from 'node:path';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';

const [directory, ...widths] = process.argv.slice(2);
if (!directory) {
	console.error('usage: node screenshots.mjs DIRECTORY [WIDTH...]');
	process.exit(2);
}

async function pages(collector) {
	const { requests } = await collector.ask('/api/v1/requests', { q: 'txn:"/cart"', order: 'slowest', limit: 2 });
	const { requests: orders } = await collector.ask('/api/v1/requests', { q: 'txn:"/order"', order: 'slowest', limit: 1 });
	const now = Date.now();
	const times = new URLSearchParams({ what: 'windows', from1: now - 3e6, to1: now - 12e5, from2: now - 12e5, to2: now });
	return {
		overview: '/',
		transactions: '/transactions',
		transaction: '/transaction?app=Shop&txn=%2Fcart',
		request: `/request?id=${requests[0].id}`,
		trace: `/trace?id=${orders[0].trace_id}`,
		queries: '/queries',
		errors: '/errors',
		external: '/external',
		map: '/map',
		search: '/search',
		live: '/live',
		'compare-typical': `/compare?what=typical&a=${requests[0].id}`,
		'compare-times': `/compare?${times}`,
		doctor: '/doctor',
	};
}

mkdirSync(resolve(directory), { recursive: true });
const collector = await Collector.start();
let browser;
try {
	await collector.take(shopRequests(1500, 55));
	await collector.tell('/api/v1/mark', { text: 'release 2.1', time: String(Date.now() - 20 * 60000) });
	browser = await startBrowser();
	for (const width of widths.length > 0 ? widths.map(Number) : [1280, 390]) {
		for (const colorScheme of ['light', 'dark']) {
			const { page, close } = await openPage(browser, collector, { viewport: { width, height: 900 }, colorScheme });
			for (const [name, path] of Object.entries(await pages(collector))) {
				await show(page, collector.url + path);
				const file = join(resolve(directory), `${name}-${width}-${colorScheme}.png`);
				await page.screenshot({ path: file, fullPage: true });
				console.log(file);
			}
			await close();
		}
	}
} finally {
	await browser?.close();
	await collector.stop();
}
