/* For script/lib/results.py: a line for each test, what failed below it, and the sum at the end. */
export default async function* report(source) {
	const counts = { passed: 0, failed: 0, skipped: 0 };
	for await (const { type, data } of source) {
		// A file, and a test that has others in it, is not counted besides these.
		const isOwn = (type === 'test:pass' || type === 'test:fail') && data.details?.type !== 'suite' && !data.name.endsWith('.test.mjs');
		if (isOwn && data.skip !== undefined && data.skip !== false) {
			counts.skipped++;
			yield `skip ${data.name}\n`;
		} else if (isOwn && type === 'test:pass') {
			counts.passed++;
			yield `ok   ${data.name}\n`;
		} else if (type === 'test:fail' && (isOwn || data.details.error?.failureType !== 'subtestsFailed')) {
			counts.failed++;
			yield `FAIL ${data.name}\n${data.details.error?.cause?.stack ?? data.details.error?.message ?? ''}\n`;
		} else if (type === 'test:stderr') {
			yield data.message;
		}
	}
	yield `${counts.passed} passed, ${counts.failed} failed, ${counts.skipped} skipped\n`;
}
