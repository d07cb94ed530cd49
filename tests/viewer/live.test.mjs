/* Requests as they end: the stream ends with the page, and what is shown can be used while more come. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { send, shopRequests } from './shop.mjs';

let collector;
let browser;
let opened;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(30, 5));
	browser = await startBrowser();
	opened = await openPage(browser, collector);
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* Requests that end while `use` runs. */
async function underLoad(use) {
	let isOver = false;
	const load = (async () => {
		for (let seed = 100; !isOver; seed++) {
			await send(collector.data, shopRequests(4, 0.02, Date.now(), seed));
			await new Promise((resolve) => setTimeout(resolve, 60));
		}
	})();
	try {
		await use();
	} finally {
		isOver = true;
		await load;
	}
}

async function listening(page) {
	await page.mouse.move(5, 5);
	await show(page, `${collector.url}/live`);
	await page.getByText('Listening').waitFor();
}

const rowsFrom = (page, least) => page.waitForFunction((count) => document.querySelectorAll('tbody tr').length >= count, least);

/* Has the page that is open hold its streams in `streams`. */
function keepStreams(page) {
	return page.evaluate(() => {
		const Own = window.EventSource;
		window.streams = [];
		window.EventSource = class extends Own {
			constructor(...parameters) {
				super(...parameters);
				window.streams.push(this);
			}
		};
	});
}

test('a stream ends with its page, however soon that is left', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/doctor`);
	await keepStreams(page);
	for (let i = 0; i < 7; i++) {
		await page.evaluate(() => {
			const leadTo = (name) => [...document.querySelectorAll('nav a')].find((each) => each.textContent === name).click();
			leadTo('Live');
			leadTo('Doctor');
		});
		await page.waitForTimeout(150);
	}
	await page.getByRole('navigation').getByRole('link', { name: 'Live' }).click();
	await page.getByText('Listening').waitFor();
	const open = () => page.evaluate(() => window.streams.filter((each) => each.readyState !== EventSource.CLOSED).length);
	assert.equal(await open(), 1);
	await page.getByRole('navigation').getByRole('link', { name: 'Transactions' }).click();
	await page.locator('tbody tr').first().waitFor();
	assert.equal(await open(), 0);
});

test('a row opens its request while others come', async () => {
	const { page } = opened;
	await underLoad(async () => {
		for (let i = 0; i < 4; i++) {
			await listening(page);
			await rowsFrom(page, 12);
			const place = await page.evaluate(() => {
				const box = document.querySelectorAll('tbody tr')[5].querySelector('a').getBoundingClientRect();
				return [box.x + 10, box.y + box.height / 2];
			});
			await page.mouse.move(...place);
			await page.waitForTimeout(60);
			const pointedAt = await page.evaluate(([x, y]) => document.elementFromPoint(x, y).closest('a')?.getAttribute('href'), place);
			await page.mouse.down();
			await page.waitForTimeout(400);
			await page.mouse.up();
			await page.waitForURL((url) => url.pathname === '/request');
			assert.equal(new URL(page.url()).search, new URL(pointedAt, collector.url).search);
		}
		await page.goBack();
		await page.mouse.move(5, 5);
		await page.getByText('Listening').waitFor();
		await rowsFrom(page, 1);
	});
});

test('what has the focus keeps it while others come', async () => {
	const { page } = opened;
	await listening(page);
	await collector.take(shopRequests(5, 0.1, Date.now(), 11));
	await rowsFrom(page, 5);
	await page.keyboard.press('ArrowDown');
	const focused = () => page.evaluate(() => document.activeElement.getAttribute('href'));
	const [href, before] = [await focused(), await page.locator('tbody tr').count()];
	assert.match(href, /^\/request/);
	await collector.take(shopRequests(5, 0.1, Date.now(), 12));
	await rowsFrom(page, before + 5);
	assert.equal(await focused(), href);
});

test('what came while it was paused is there once it goes on', async () => {
	const { page } = opened;
	await listening(page);
	await page.keyboard.press('p');
	const lines = shopRequests(20, 0.1, Date.now(), 13);
	await collector.take(lines);
	await page.getByText(`Paused; ${lines.length} requests since`).waitFor();
	assert.equal(await page.locator('tbody tr').count(), 0);
	await page.getByRole('button', { name: 'Go on' }).click();
	await rowsFrom(page, 1);
	assert.equal(await page.locator('tbody tr').count(), lines.length);
});

test('what passed too fast to be shown is said, all of it together', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/doctor`);
	await keepStreams(page);
	await page.getByRole('navigation').getByRole('link', { name: 'Live' }).click();
	await page.getByText('Listening').waitFor();
	assert.doesNotMatch(await page.locator('.page-head').textContent(), /too fast/);
	// As the collector tells a slow listener.
	for (const count of ['1', '1200']) {
		await page.evaluate((data) => window.streams.at(-1).dispatchEvent(new MessageEvent('lost', { data })), count);
	}
	await page.getByText(/1\D?201 requests passed too fast to be shown/).waitFor();
});

test('a stream that the collector has ended is listened to again by whoever asks anew', async () => {
	const { page } = opened;
	await listening(page);
	let isOver = true;
	await page.route('**/api/v1/live*', (route) => {
		if (route.request().resourceType() !== 'eventsource' || !isOver) {
			return route.continue();
		}
		return route.fulfill({ status: 503, body: '' });
	});
	for (const ask of [() => page.getByRole('button', { name: 'Listen again' }).click(), () => page.keyboard.press('r')]) {
		isOver = true;
		await show(page, `${collector.url}/live`);
		await page.getByText('does not send any more').waitFor();
		assert.ok(await page.getByRole('button', { name: 'Listen again' }).isVisible());
		isOver = false;
		await ask();
		await page.getByText('Listening').waitFor();
		assert.ok(await page.getByRole('button', { name: 'Listen again' }).isHidden());
	}
	await page.unroute('**/api/v1/live*');
	opened.problems.length = 0; // The browser notes the refusals itself.
});

test('space presses the button that has the focus, and else pauses', async () => {
	const { page } = opened;
	await listening(page);
	await page.getByRole('button', { name: 'Language' }).focus();
	await page.keyboard.press(' ');
	await page.locator('dialog[open]').waitFor();
	await page.keyboard.press('Escape');
	await page.getByText('Listening').waitFor();
	await page.locator('h1').click();
	await page.keyboard.press(' ');
	await page.getByText('Paused').waitFor();
	await page.keyboard.press(' ');
	await page.getByText('Listening').waitFor();
});

test('nothing is said to be listened to where the collector refuses', async () => {
	const { page } = opened;
	await show(page, `${collector.url}/live?q=tnx%3A1`);
	await page.locator('.state-error').waitFor();
	assert.equal(await page.getByText('Listening').count(), 0);
	opened.problems.length = 0; // The browser notes the refusal itself.
	await page.context().clearCookies();
	await show(page, `${collector.url}/live`);
	await page.getByText('not logged in').waitFor();
	assert.equal(await page.getByText('Listening').count(), 0);
	opened.problems.length = 0;
});

test('nothing went wrong in the pages', () => {
	assert.deepEqual(opened.problems, []);
});
