/* The map where many services, hosts and databases are: it stays legible, and all of them can be seen. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { accessibilityProblems } from './accessibility.mjs';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';
import { Requests } from './shop.mjs';

const SERVICES = 45;
const HOSTS = 40;
const DATABASES = 30;
const CIRCLE = 3;
/* What callers leave out, and those who are asked may be told of. */
const PORTS = ['', ':80', ':443'];
/* How many of a kind are seen at once. */
const SEEN = { application: 12, host: 8, database: 8 };

let collector;
let browser;

/* A site whose front asks all services and hosts. Three services ask each other in a circle, all a database. */
function manyServices() {
	const all = new Requests(9);
	const at = Date.now() - 600000;
	const front = all.begin(at, { application: 'Front', name: '/', http_host: 'front.example' });
	for (let i = 0; i < SERVICES; i++) {
		front.call(`http://service-${i}.example/of?id=${i}`, 10 + i);
	}
	for (let i = 0; i < HOSTS; i++) {
		front.call(`https://partner-${i}.example/rates`, 5 + 2 * i, i % 10 === 3 ? 503 : 200);
	}
	front.end();
	for (let i = 0; i < SERVICES; i++) {
		const service = all.begin(at + 60 * i, { application: `Service ${i}`, name: '/of', http_host: `${i % 2 ? 'Service' : 'service'}-${i}.example${PORTS[i % PORTS.length]}` });
		service.code(20 + i);
		service.span('PDO::__construct', 'PDO', { hn: `mysql:host=db-${i % DATABASES}.example;dbname=shop` });
		service.statement('SELECT price FROM item WHERE id = 3', 3 + i);
		if (i >= SERVICES - CIRCLE) {
			const next = i + 1 < SERVICES ? i + 1 : SERVICES - CIRCLE;
			service.call(`http://service-${next}.example/of?id=2`, 4);
		}
		service.end();
	}
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(manyServices());
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* How many of a kind the interface tells of. */
async function counts() {
	const { applications } = await collector.ask('/api/v1/applications', { limit: 500 });
	const { hosts } = await collector.ask('/api/v1/calls', { limit: 500 });
	const { statements } = await collector.ask('/api/v1/queries', { limit: 500 });
	const external = hosts.filter((each) => each.host.startsWith('partner-')).map((each) => each.host);
	return {
		application: applications.length,
		host: new Set(external).size,
		database: new Set(statements.map((each) => `${each.database} ${each.server}`)).size,
	};
}

/* Of each kind how many boxes stand for one, and what the box says that stands for the others. */
function boxes(page) {
	return page.evaluate(() => Object.fromEntries(['application', 'host', 'database'].map((kind) => [kind, {
		alone: document.querySelectorAll(`a.map-${kind}`).length,
		others: document.querySelector(`button.map-${kind} b`)?.textContent ?? '',
	}])));
}

for (const [width, height] of [[1280, 900], [390, 800]]) {
	for (const colorScheme of ['light', 'dark']) {
		test(`a map of many is legible at ${width} pixels in the ${colorScheme} theme`, { timeout: 120000 }, async () => {
			const { page, problems, close } = await openPage(browser, collector, { viewport: { width, height }, colorScheme });
			await show(page, `${collector.url}/map`);
			const all = await counts();
			assert.deepEqual(all, { application: SERVICES + 1, host: HOSTS, database: DATABASES });
			const names = { application: 'applications', host: 'external hosts', database: 'databases' };
			for (const [kind, shown] of Object.entries(await boxes(page))) {
				assert.deepEqual(shown, { alone: SEEN[kind], others: `and ${all[kind] - SEEN[kind]} more ${names[kind]}` });
			}
			// Those that took most time stand by themselves.
			assert.equal(await page.locator('a.map-host', { hasText: `partner-${HOSTS - 1}.example` }).count(), 1);
			assert.equal(await page.locator('a.map-host', { hasText: 'partner-0.example' }).count(), 0);
			const plane = await page.locator('.map-plane').boundingBox();
			// Two columns are in view on a narrow page, where names take two lines.
			assert.ok(plane.height < (width < 500 ? 1900 : 1600), `the map is ${plane.height} pixels high`);
			// The front, the circle one after the other, and databases.
			assert.equal(await page.locator('.map-column').count(), CIRCLE + 2);
			assert.deepEqual(await page.evaluate(layoutProblems), []);
			assert.deepEqual(await accessibilityProblems(page), []);
			await page.locator('button.map-host').click();
			await settled(page);
			const opened = await boxes(page);
			assert.deepEqual(opened.host, { alone: HOSTS, others: '' });
			assert.equal(opened.application.alone, SEEN.application);
			assert.deepEqual(await page.evaluate(layoutProblems), []);
			await page.reload();
			await settled(page);
			assert.equal(await page.locator('a.map-host').count(), HOSTS);
			await page.getByRole('link', { name: 'Show fewer boxes' }).click();
			await settled(page);
			assert.equal((await boxes(page)).host.alone, SEEN.host);
			assert.deepEqual(problems, []);
			await close();
		});
	}
}
