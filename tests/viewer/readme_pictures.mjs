/*
 * The README's pictures: node readme_pictures.mjs DIRECTORY MINUTES. Plays the demonstration, whose
 * engine, extension and collector KAQ_PHP, KAQ_SO and KAQ_COLLECTOR name, and visits its shop for so
 * long, so that the lines have something to show.
 */
import { mkdirSync } from 'node:fs';
import { join, resolve } from 'node:path';
import { setTimeout as pause } from 'node:timers/promises';
import { settled, startBrowser } from './collector.mjs';
import { Demo, demoMissing } from './demo.mjs';
import { chance } from './shop.mjs';

const PAUSE_MS = 900;
const VISITS = [['/', 45], ['/shop/cart?item=3', 30], ['/order?item=3', 18], ['/report', 4], ['/error', 3]];
const WIDTH = 1280;
const HEIGHT = 900;

const [directory, minutes] = process.argv.slice(2);
if (demoMissing() || !(Number(minutes) > 0)) {
	console.error('usage: KAQ_PHP=... KAQ_SO=... KAQ_COLLECTOR=... node readme_pictures.mjs DIRECTORY MINUTES');
	process.exit(2);
}

async function visit(demo) {
	const random = chance(5);
	const sum = VISITS.reduce((total, [, weight]) => total + weight, 0);
	for (const end = Date.now() + minutes * 60000; Date.now() < end; await pause(PAUSE_MS * 2 * random())) {
		let chosen = random() * sum;
		const [path] = VISITS.find(([, weight]) => (chosen -= weight) < 0);
		await demo.visit(path);
	}
}

/* The link works for some minutes only. */
async function login(browser, link) {
	const page = await browser.newPage({ viewport: { width: WIDTH, height: HEIGHT }, colorScheme: 'light', timezoneId: 'UTC' });
	await page.goto(link);
	return page;
}

async function pictures(page) {
	const ask = (path) => page.evaluate(async (address) => (await fetch(address)).json(), path);
	const { requests } = await ask(`/api/v1/requests?${new URLSearchParams({ q: 'txn:*order* app:"Demo shop" has:call has:verdict', order: 'slowest', limit: 1000 })}`);
	// Neither the slowest nor the fastest.
	const usual = requests[requests.length >> 1];
	if (!usual) {
		throw new Error('no order has a verdict');
	}
	const { origin } = new URL(page.url());
	for (const [name, path, shown] of [['overview', '/?from=15m', '.finding-gain'], ['request', `/request?id=${usual.id}`, '.verdict']]) {
		await page.goto(origin + path);
		await settled(page);
		await page.locator(shown).first().waitFor();
		const file = join(resolve(directory), `${name}.png`);
		await page.screenshot({ path: file });
		console.log(file);
	}
}

mkdirSync(resolve(directory), { recursive: true });
const demo = await Demo.start();
let browser;
try {
	browser = await startBrowser();
	const page = await login(browser, demo.link);
	await visit(demo);
	await pictures(page);
} finally {
	await browser?.close();
	await demo.stop();
}
