/* Two times that are not equally long, told by the minute; marks, and what changed in a request. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { Requests } from './shop.mjs';
import { assertFigure, rowsOf } from './shown_figures.mjs';

const MINUTE = 60000;

let collector;
let browser;
let opened;

const now = Math.floor(Date.now() / MINUTE) * MINUTE;
const TIMES = { from1: now - 40 * MINUTE, to1: now - 16 * MINUTE, from2: now - 16 * MINUTE, to2: now - 4 * MINUTE };
const MINUTES = { before: 24, after: 12 };

/* In the time before and in the one after: how many requests, and how long each takes. */
const PAGES = { '/slower': [[6, 30], [6, 400]], '/faster': [[12, 600], [3, 40]], '/as-often': [[12, 50], [6, 50]], '/new': [[0, 0], [4, 70]] };

function requests() {
	const all = new Requests(5);
	for (const [name, times] of Object.entries(PAGES)) {
		times.forEach(([count, ms], time) => {
			for (let i = 0; i < count; i++) {
				all.begin([TIMES.from1, TIMES.from2][time] + (1 + i % 10) * MINUTE, { application: 'Shop', name }).statement(`SELECT ${name.slice(1, 4)}`, ms).code(3).end();
			}
		});
	}
	for (const [count, ms] of [[3, 20], [12, 300]]) {
		const r = all.begin(now - 3 * MINUTE, { application: 'Shop', name: '/grown' });
		for (let i = 0; i < count; i++) {
			r.statement('SELECT price FROM item', 20);
		}
		r.inside('View::render', (each) => each.code(ms)).end();
	}
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(requests());
	await collector.gathered('/api/v1/queries', 'statements', 5);
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

function answers(path, parameters = {}) {
	return Promise.all([[TIMES.from1, TIMES.to1], [TIMES.from2, TIMES.to2]].map(([from, to]) => collector.ask(path, { from, to, ...parameters })));
}

async function shownIn(caption) {
	const { page } = opened;
	const rows = page.getByRole('table', { name: caption }).locator('tbody tr[data-row]');
	const classes = await rows.evaluateAll((list) => list.map((row) => Object.fromEntries([...row.querySelectorAll('td[data-title]')].map((cell) => [cell.dataset.title, [...cell.querySelectorAll('.bad, .good')].map((each) => each.className.split(' ')[0]).join()]))));
	const shown = await rowsOf(page.locator('.table', { has: page.getByRole('table', { name: caption }) }));
	return shown.map((cells, i) => ({ cells, classes: classes[i] }));
}

/* Whether more is told of as worse, and less as better; what hardly changed as neither. */
function assertChange({ cells, classes }, title, [one, other], isJudged = true) {
	const [, before, after] = /^(.*?) → (\S+(?: (?:ms|s|%|k))?)/.exec(cells[title]) ?? assert.fail(`${title}: ${cells[title]}`);
	assertFigure(before, one ?? null, `${title} before`);
	assertFigure(after, other ?? null, `${title} after`);
	const grown = (other ?? 0) - (one ?? 0);
	const level = !isJudged || Math.abs(grown) <= 0.1 * (one ?? 0) ? '' : grown > 0 ? 'bad' : 'good';
	assert.equal(classes[title], level, `${title}: ${cells[title]}`);
}

/* Most growth first. */
function assertGrowth(shown, sides) {
	const growths = sides.map(([one, other]) => (other?.total_ms ?? 0) / MINUTES.after - (one?.total_ms ?? 0) / MINUTES.before);
	assert.ok(growths.some((each) => each > 0) && growths.some((each) => each < 0));
	assert.deepEqual([...growths].sort((one, other) => other - one), growths);
	growths.forEach((growth, i) => {
		const { cells, classes } = shown[i];
		assertFigure(cells.Growth.replace('/min', ''), growth, `growth of row ${i}`);
		assert.equal(cells.Growth.startsWith('+'), growth > 0);
		assert.equal(classes.Growth, growth > 0 ? '' : 'good');
	});
}

test('transactions of two times are told by the minute', async () => {
	const { page } = opened;
	const tops = await answers('/api/v1/top');
	await show(page, `${collector.url}/compare?${new URLSearchParams({ what: 'windows', ...TIMES })}`);
	const shown = await shownIn('Transactions before and after');
	assert.equal(shown.length, Object.keys(PAGES).length);
	const names = await page.getByRole('table', { name: 'Transactions before and after' }).locator('.main-cell a').allTextContents();
	const sides = names.map((name) => tops.map(({ transactions }) => transactions.find((each) => each.transaction === name)));
	assertGrowth(shown, sides);
	sides.forEach((pair, i) => {
		for (const [title, member] of [['Mean', 'mean_ms'], ['p95', 'p95_ms'], ['Queries', 'queries_per_request'], ['Errors', 'error_share']]) {
			assertChange(shown[i], title, pair.map((each) => each?.[member]));
		}
		assertChange(shown[i], 'Rate', [(pair[0]?.requests ?? 0) / MINUTES.before, (pair[1]?.requests ?? 0) / MINUTES.after], false);
	});
});

test('statements of two times are told by the minute', async () => {
	const { page } = opened;
	const found = await answers('/api/v1/queries');
	await show(page, `${collector.url}/compare?${new URLSearchParams({ what: 'windows', ...TIMES })}`);
	const shown = await shownIn('Statements before and after');
	const names = await page.getByRole('table', { name: 'Statements before and after' }).locator('.main-cell code').allTextContents();
	const sides = names.map((name) => found.map(({ statements }) => statements.find((each) => each.statement === name)));
	assertGrowth(shown, sides);
	sides.forEach((pair, i) => assertChange(shown[i], 'Mean', pair.map((each) => each?.mean_ms)));
});

test('as long after a mark as before it is compared', async () => {
	const { page } = opened;
	const begin = Date.now();
	const marks = [50, 25].map((minutes) => begin - minutes * MINUTE);
	for (const time of marks) {
		await collector.tell('/api/v1/mark', { text: `release ${time}`, time: String(time) });
	}
	await show(page, `${collector.url}/transaction?app=Shop&txn=%2Fslower`);
	for (const [i, minutes] of [10, 25].entries()) {
		const href = await page.locator('.marks li', { hasText: `release ${marks[i]}` }).getByRole('link').getAttribute('href');
		const [from1, to1, from2, to2] = ['from1', 'to1', 'from2', 'to2'].map((name) => Number(new URL(href, collector.url).searchParams.get(name)));
		assert.deepEqual([to1, from2], [marks[i], marks[i]]);
		assert.equal(to1 - from1, to2 - from2);
		assert.ok(Math.abs(to2 - from2 - minutes * MINUTE) < 20000, `${(to2 - from2) / MINUTE} minutes`);
	}
});

const CHANGES = { added: 'only after', removed: 'only before', count: 'by how often', duration: 'by how long' };

test('a call grew by how often it was made, or by how long it took', async () => {
	const { page } = opened;
	const { requests: found } = await collector.ask('/api/v1/requests', { q: 'txn:"/grown"', order: 'slowest' });
	const [a, b] = [found[1].id, found[0].id];
	const { differences } = await collector.ask('/api/v1/compare', { a, b });
	assert.deepEqual(new Set(differences.map((each) => each.change)), new Set(['count', 'duration']));
	await show(page, `${collector.url}/compare?what=requests&a=${a}&b=${b}`);
	const shown = await rowsOf(page.locator('.table', { has: page.getByRole('table', { name: 'What differs' }) }));
	assert.deepEqual(shown.map((each) => each.Why), differences.map((each) => CHANGES[each.change]));
});

test('what was not recorded is said of, and what is estimated from the rest', async () => {
	const { page } = opened;
	const cell = (name) => page.locator('.application .figure', { has: page.locator('dt', { hasText: name }) }).locator('dd');
	for (const told of [{}, { requests: 400, recorded: 100, exact: false, monitored_share: 0.25 }, { requests: 400, recorded: 100, exact: true, monitored_share: 0.25 }]) {
		await page.route('**/api/v1/applications?*', async (route) => {
			const answer = await (await route.fetch()).json();
			await route.fulfill({ json: { ...answer, applications: answer.applications.map((each) => ({ ...each, ...told })) } });
		});
		await show(page, `${collector.url}/`);
		await page.unroute('**/api/v1/applications?*');
		assert.deepEqual(await cell('Recorded').allTextContents(), told.monitored_share === undefined ? [] : ['25 %']);
		assert.equal((await cell('Rate').textContent()).startsWith('~ '), told.exact === false);
	}
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
