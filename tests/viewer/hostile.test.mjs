/* What a visitor or a script can put into a recording is shown as text, whatever is in it. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, settled, show, startBrowser } from './collector.mjs';
import { Requests } from './shop.mjs';

const MARKUP = [
	'<script>window.hit=1</script>',
	'</script><script>window.hit=2</script>',
	'<img src=x onerror="window.hit=3">',
	'"><svg onload=window.hit=4>',
	'javascript:window.hit=5',
	'\u202egnp.exe\u2066',
];

let collector;
let browser;

/* The same in every field that a recording has. */
function hostileRequests() {
	const all = new Requests(3);
	MARKUP.forEach((text, i) => {
		const at = Date.now() - 60000 - i * 1000;
		const request = all.begin(at, {
			application: `App ${text}`, name: `/page ${text}`, http_host: `host-${text}`, http_query_str: `q=${text}`,
			http_method_name: i % 2 ? 'GET' : text, session_id: text, http_headers: { [text]: text, 'User-Agent': text },
			http_input_params: { [text]: text }, http_resp_headers: { [text]: text }, custom_params: { [text]: text },
		});
		request.inside(`fn ${text}`, (inner) => {
			inner.statement(`SELECT "${text}" FROM \`${text}\``, 300, { hn: text, dn: text });
			inner.call(`https://${text}/${text}?${text}`, 400, 500);
			inner.code(500);
		}, { if: 1, ei: [{ err_clz: `Error ${text}`, str: `message ${text}`, filename: `/srv/${text}.php`, linenumber: 3, level: 'Error' }] });
		request.end();
	});
	const long = `<b>${'x'.repeat(1 << 20)}`;
	const request = all.begin(Date.now() - 90000, { application: 'Long', name: `/${long}`, http_host: 'long.example' });
	request.inside(`fn${long}`, (inner) => inner.statement(`SELECT '${long}' FROM ${long}`, 200).code(200), {
		if: 1, ei: [{ err_clz: `E${long}`, str: long, filename: long, linenumber: 1, level: 'Error' }],
	});
	request.end();
	return all.lines;
}

before(async () => {
	collector = await Collector.start();
	await collector.take(hostileRequests());
	await collector.tell('/api/v1/mark', { text: `${MARKUP[2]}`, time: String(Date.now() - 30000) });
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* Elements that only markup of a recording could have made. */
function foreign(page) {
	return page.evaluate(() => ({
		hit: window.hit,
		elements: [...document.querySelectorAll('main script, main img, main iframe, main object, main [onerror], main [onload], main b b')].map((each) => each.outerHTML.slice(0, 80)),
		links: [...document.querySelectorAll('a[href]')].map((each) => each.getAttribute('href')).filter((href) => !/^(\/|#|blob:)/.test(href)),
	}));
}

test('no page takes recorded text for anything but text', { timeout: 240000 }, async () => {
	const { page, problems, close } = await openPage(browser, collector);
	const { transactions } = await collector.ask('/api/v1/top', { from: '1h' });
	const { requests } = await collector.ask('/api/v1/requests', { from: '1h' });
	const paths = ['/', '/transactions', '/queries', '/errors', '/external', '/map', '/search', '/live', '/doctor', '/compare?what=windows'];
	for (const each of transactions) {
		paths.push(`/transaction?${new URLSearchParams({ app: each.application, txn: each.transaction })}`);
	}
	for (const each of requests) {
		paths.push(`/compare?${new URLSearchParams({ what: 'requests', a: requests[0].id, b: each.id })}`);
	}
	for (const text of MARKUP) {
		paths.push(`/search?${new URLSearchParams({ q: `"${text.replaceAll('"', '')}"`, app: text, host: text })}`, `/${encodeURIComponent(text.replace(/[/.]/g, ''))}`);
	}
	for (const path of paths) {
		await assert.doesNotReject(show(page, collector.url + path), path.slice(0, 200));
		for (const opener of await page.locator('.opener').all()) {
			await opener.click();
		}
		await settled(page);
		assert.deepEqual(await foreign(page), { hit: undefined, elements: [], links: [] }, path);
	}
	// The browser notes what the collector refuses; a policy that was broken would be noted, too.
	assert.deepEqual(problems.filter((each) => !/status of 4\d\d/.test(each)), []);
	await close();
});

test('live requests are text, too', { timeout: 60000 }, async () => {
	const { page, close } = await openPage(browser, collector);
	await show(page, `${collector.url}/live`);
	await page.getByText('Listening').waitFor();
	await collector.take(hostileRequests());
	await page.locator('tbody tr').first().waitFor();
	await page.waitForTimeout(500);
	assert.deepEqual(await foreign(page), { hit: undefined, elements: [], links: [] });
	await close();
});
