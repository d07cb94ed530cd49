/* What is wrong with the monitoring itself is said: by the Doctor page, and on the Overview of what is not monitored. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { layoutProblems } from './layout.mjs';

const SIGNS = { problem: '✕ problem', warning: '! warning', unknown: '? unknown', ok: '✓ ok' };
const OTHERS = 'What the collector’s user can see';
const ROOTS = 'The last report of root';
const since = Date.now() - 3 * 3600000;

const check = (health, subject, what, advice = '') => ({ health, subject, what, advice });

const ROOT_REPORT = {
	checks: [check('ok', 'disk', 'half of it is free'), check('warning', 'clock', 'it is slow', 'set it'), check('problem', 'port', '<b>nginx</b> holds it', 'end nginx'), check('unknown', 'limits', 'cannot be read')],
	problems: 1, warnings: 1, running: true, superuser: true, time_ms: since,
};

let ill;
let well;
let browser;

before(async () => {
	ill = await Collector.start({
		suspended: `${since}\tShop\tshop-1\t3 crashes in the extension\n${since}\tStock <i>\tstock-1\t4 crashes in the extension\n`,
		'doctor.json': JSON.stringify(ROOT_REPORT),
	});
	const checks = ROOT_REPORT.checks.map((each) => ({ ...each, health: 'ok', advice: '' }));
	well = await Collector.start({ 'doctor.json': JSON.stringify({ ...ROOT_REPORT, checks, problems: 0, warnings: 0 }) });
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await ill?.stop();
	await well?.stop();
});

/* A report as the page has it. */
async function reportOf(page, title) {
	const panel = page.locator('.panel', { has: page.getByRole('heading', { name: title, exact: true }) });
	return {
		sum: await panel.locator('p > b').first().textContent(),
		level: await panel.locator('p > b').first().getAttribute('class'),
		checks: await panel.locator('.check').evaluateAll((list) =>
			list.map((each) => [each.querySelector('.check-health').textContent, each.querySelector('.check-subject').textContent, ...[...each.querySelectorAll('.check-what p')].map((part) => part.textContent)]),
		),
	};
}

/* What is worst stands first, each with what to do. */
function expected(report) {
	const order = Object.keys(SIGNS);
	return [...report.checks]
		.sort((one, other) => order.indexOf(one.health) - order.indexOf(other.health))
		.map((each) => [SIGNS[each.health], each.subject, each.what, ...(each.advice ? [`→ ${each.advice}`] : [])]);
}

const counted = (count, what) => `${count} ${what}${count === 1 ? '' : 's'}`;

test('the doctor\'s page says what is wrong, the worst first, and what to do', async () => {
	const { page, problems, close } = await openPage(browser, ill);
	await show(page, `${ill.url}/doctor`);
	const { collector: own, root } = await ill.ask('/api/v1/doctor');
	assert.ok(own.checks.some((each) => each.health === 'problem' && each.what.includes('Shop is not monitored')));
	assert.deepEqual(root.checks, ROOT_REPORT.checks);
	for (const [title, report] of [[OTHERS, own], [ROOTS, root]]) {
		const shown = await reportOf(page, title);
		assert.equal(shown.sum, `${counted(report.problems, 'problem')}, ${counted(report.warnings, 'warning')}`);
		assert.equal(shown.level, 'bad');
		assert.deepEqual(shown.checks, expected(report));
	}
	assert.deepEqual(await page.evaluate(layoutProblems), []);
	assert.deepEqual(problems, []);
	await close();
});

test('the doctor\'s page says when nothing is wrong', async () => {
	const { page, close } = await openPage(browser, well);
	await show(page, `${well.url}/doctor`);
	const shown = await reportOf(page, ROOTS);
	assert.deepEqual([shown.sum, shown.level, shown.checks.length], ['Nothing is wrong', 'good', ROOT_REPORT.checks.length]);
	await close();
});

test('the overview says of what is not monitored since when, why, and how it is again', async () => {
	const { page, problems, close } = await openPage(browser, ill);
	await show(page, `${ill.url}/`);
	const notices = page.getByRole('alert');
	await notices.nth(1).waitFor();
	const texts = await notices.allTextContents();
	assert.equal(texts.length, 2);
	for (const [i, [application, crashes]] of [['Shop', 3], ['Stock <i>', 4]].entries()) {
		assert.ok(texts[i].startsWith(`${application} is not monitored since `), texts[i]);
		assert.ok(texts[i].endsWith(`: ${crashes} crashes in the extension. kaq resume brings it back.`), texts[i]);
		assert.equal(await notices.nth(i).locator('time').getAttribute('datetime'), new Date(since).toISOString());
	}
	assert.deepEqual(await page.evaluate(layoutProblems), []);
	await ill.tell('/api/v1/resume', { app: 'Shop' });
	await page.keyboard.press('r');
	await page.waitForFunction(() => document.querySelectorAll('[role=alert]').length === 1);
	await settled(page);
	assert.match(await notices.textContent(), /^Stock <i> is not monitored/);
	assert.deepEqual(problems, []);
	await close();
});

test('where all is monitored the overview says nothing of it', async () => {
	const { page, close } = await openPage(browser, well);
	await Promise.all([page.waitForResponse((response) => response.url().includes('/api/v1/status')), show(page, `${well.url}/`)]);
	await settled(page);
	assert.equal(await page.getByRole('alert').count(), 0);
	await close();
});
