/* The sources: types, rules, size, and that nothing of a library is in them. */
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { test } from 'node:test';
import { promisify } from 'node:util';
import { gzipSync } from 'node:zlib';
import { VIEWER } from './modules.mjs';

const run = promisify(execFile);
const folder = process.env.KAQ_VIEWER_MODULES ?? VIEWER;
const SECONDS = 300;
const LARGEST = 150 * 1000;

async function clean(...command) {
	try {
		await run(process.execPath, command, { cwd: folder, timeout: SECONDS * 1000, maxBuffer: 1 << 24 });
	} catch (error) {
		assert.fail(`${error.message}\n${error.stdout}\n${error.stderr}`);
	}
}

test('the types fit', () => clean(join(folder, 'node_modules/typescript/bin/tsc'), '--noEmit'));

test('the rules are kept', () => clean(join(folder, 'node_modules/eslint/bin/eslint.js'), '--max-warnings', '0', '.'));

test('the pages are small and ask nobody else', async () => {
	const target = mkdtempSync(join(tmpdir(), 'kaq-pages-'));
	try {
		await run(process.execPath, [join(folder, 'build.mjs'), target], { timeout: SECONDS * 1000 });
		let sum = 0;
		for (const name of readdirSync(join(target, 'files'))) {
			const bytes = readFileSync(join(target, 'files', name));
			sum += gzipSync(bytes, { level: 9 }).length;
			const addresses = bytes.toString().match(/(https?|wss?):\/\/[^\s"'`)]+/g) ?? [];
			// Names of namespaces, and what licences say.
			const asked = addresses.filter((each) => !each.startsWith('http://www.w3.org/'));
			assert.deepEqual(asked, [], name);
			assert.doesNotMatch(bytes.toString(), /\binnerHTML\b|\bouterHTML\b|insertAdjacentHTML|document\.write\b/, name);
		}
		assert.ok(sum <= LARGEST, `${sum} bytes`);
	} finally {
		rmSync(target, { recursive: true, force: true });
	}
});

test('the lock file names what is downloaded and no place to have it from', () => {
	const lock = JSON.parse(readFileSync(join(VIEWER, 'package-lock.json'), 'utf8'));
	for (const [name, each] of Object.entries(lock.packages)) {
		if (name) {
			assert.match(each.integrity, /^sha512-/, name);
			assert.equal(each.resolved, undefined, name);
		}
	}
});
