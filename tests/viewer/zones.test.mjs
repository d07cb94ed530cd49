/* Times are those of the viewer's zone, and exact ones say which that is: west and east of Greenwich, by half an hour. */
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { Collector, openPage, show, startBrowser } from './collector.mjs';
import { shopRequests } from './shop.mjs';

let collector;
let browser;

before(async () => {
	collector = await Collector.start();
	await collector.take(shopRequests(200, 20));
	browser = await startBrowser();
});

after(async () => {
	await browser?.close();
	await collector?.stop();
});

/* Of a moment in a zone: `2026-11-22 10:33:22.250 -03:30`. */
function exactIn(timeZone, iso) {
	const parts = Object.fromEntries(
		new Intl.DateTimeFormat('en-US', {
			timeZone, hourCycle: 'h23', timeZoneName: 'longOffset', year: 'numeric', month: '2-digit', day: '2-digit', hour: '2-digit', minute: '2-digit', second: '2-digit', fractionalSecondDigits: 3,
		}).formatToParts(new Date(iso)).map(({ type, value }) => [type, value]),
	);
	const zone = parts.timeZoneName.replace('GMT', '') || '+00:00';
	return `${parts.year}-${parts.month}-${parts.day} ${parts.hour}:${parts.minute}:${parts.second}.${parts.fractionalSecond} ${zone}`;
}

for (const [timeZone, sign] of [['America/St_Johns', '-'], ['Asia/Kolkata', '+'], ['America/New_York', '-'], ['UTC', '+']]) {
	test(`times are those of ${timeZone}`, async () => {
		const { page, problems, close } = await openPage(browser, collector, { timezoneId: timeZone });
		const { requests } = await collector.ask('/api/v1/requests', { limit: 1 });
		for (const path of ['/search', '/errors', `/request?id=${requests[0].id}`]) {
			await show(page, collector.url + path);
			const times = await page.locator('time').evaluateAll((list) => list.map((each) => ({ iso: each.dateTime, title: each.title, text: each.textContent })));
			assert.ok(times.length > 0, path);
			for (const { iso, title, text } of times) {
				assert.equal(title, exactIn(timeZone, iso), path);
				assert.match(title, new RegExp(`\\${sign}\\d\\d:\\d\\d$`));
				// What an exact time says is the moment, wherever it is read.
				assert.equal(new Date(title.replace(/ /, 'T').replace(' ', '')).toISOString(), iso);
				assert.ok(text.endsWith(title.slice(11, 19)), `${text} is not ${title}`);
			}
		}
		assert.deepEqual(problems, []);
		await close();
	});
}
