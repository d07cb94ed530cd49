/*
 * The README's pictures: node readme_pictures.mjs DIRECTORY MINUTES. Plays the demonstration, whose
 * engine, extension and collector KAQ_PHP, KAQ_SO and KAQ_COLLECTOR name, and visits its shop for so
 * long, so that the lines have something to show.
 */
import { spawn } from 'node:child_process';
import { mkdirSync } from 'node:fs';
import { join, resolve } from 'node:path';
import { setTimeout as pause } from 'node:timers/promises';
import { settled, startBrowser } from './collector.mjs';
import { HERE } from './modules.mjs';
import { chance } from './shop.mjs';

const START_MS = 240000;
const STOP_MS = 20000;
const PAUSE_MS = 900;
const VISITS = [['/', 45], ['/shop/cart?item=3', 30], ['/order?item=3', 18], ['/report', 4], ['/error', 3]];
const WIDTH = 1280;
const HEIGHT = 900;

const { KAQ_PHP: php, KAQ_SO: extension, KAQ_COLLECTOR: program } = process.env;
const [directory, minutes] = process.argv.slice(2);
if (!php || !extension || !program || !(Number(minutes) > 0)) {
	console.error('usage: KAQ_PHP=... KAQ_SO=... KAQ_COLLECTOR=... node readme_pictures.mjs DIRECTORY MINUTES');
	process.exit(2);
}

/* The running demonstration, the link that logs a browser in, and the shop's address. */
function startDemo() {
	const play = join(HERE, '..', '..', 'demo', 'play.py');
	const demo = spawn('python3', [play, '--php', php, '--extension', extension, '--collector', program, '--free-ports', '--serve'], { stdio: ['ignore', 'pipe', 'inherit'] });
	return new Promise((done, fail) => {
		let said = '';
		const timer = setTimeout(() => fail(new Error('the demonstration does not start')), START_MS);
		demo.once('exit', (status) => fail(new Error(`the demonstration ended with status ${status}`)));
		demo.stdout.on('data', (text) => {
			said += text;
			const found = /by a link that works once:\s+(\S+)\s[^]*for more requests:\s+(\S+)\//.exec(said);
			if (found) {
				clearTimeout(timer);
				done({ demo, link: found[1], shop: found[2] });
			}
		});
	});
}

async function stopDemo(demo) {
	if (demo.exitCode === null) {
		const ended = new Promise((done) => demo.once('exit', done));
		const timer = setTimeout(() => demo.kill('SIGKILL'), STOP_MS);
		demo.kill('SIGINT');
		await ended;
		clearTimeout(timer);
	}
}

async function visit(shop) {
	const random = chance(5);
	const sum = VISITS.reduce((total, [, weight]) => total + weight, 0);
	for (const end = Date.now() + minutes * 60000; Date.now() < end; await pause(PAUSE_MS * 2 * random())) {
		let chosen = random() * sum;
		const [path] = VISITS.find(([, weight]) => (chosen -= weight) < 0);
		await (await fetch(shop + path)).arrayBuffer();
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
const { demo, link, shop } = await startDemo();
let browser;
try {
	browser = await startBrowser();
	const page = await login(browser, link);
	await visit(shop);
	await pictures(page);
} finally {
	await browser?.close();
	await stopDemo(demo);
}
