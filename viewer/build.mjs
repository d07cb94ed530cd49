// Bundles the pages: node build.mjs DIRECTORY. Everything in DIRECTORY is what the collector serves,
// but for shared_file.*, which become parts of a file that somebody downloads. Needs esbuild and the
// libraries of package.json beside it, or where NODE_PATH says.
import { existsSync, mkdirSync, readFileSync, readdirSync, copyFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { gzipSync } from 'node:zlib';
import { build } from 'esbuild';

const LARGEST_BUNDLE = 150 * 1000; // bytes, gzipped, all files together

const here = dirname(fileURLToPath(import.meta.url));
const target = process.argv[2];
if (!target) {
	console.error('usage: node build.mjs DIRECTORY');
	process.exit(2);
}

// The libraries that the pages hold, for the box that names them.
function licences() {
	const { dependencies } = JSON.parse(readFileSync(join(here, 'package.json'), 'utf8'));
	return Object.keys(dependencies)
		.filter((name) => name !== 'esbuild')
		.map((name) => {
			const folder = join(here, 'node_modules', name);
			const { version, license } = JSON.parse(readFileSync(join(folder, 'package.json'), 'utf8'));
			const file = readdirSync(folder).find((each) => /^licen[cs]e/i.test(each));
			return { name, version, licence: license, text: file ? readFileSync(join(folder, file), 'utf8') : '' };
		});
}

const entries = ['src/app.ts', 'src/shared_file.ts', 'style/app.css', 'style/shared_file.css']
	.map((each) => join(here, each))
	.filter((each) => existsSync(each));
mkdirSync(target, { recursive: true });
await build({
	entryPoints: entries,
	entryNames: '[name]',
	outdir: target,
	bundle: true,
	minify: true,
	format: 'iife',
	target: ['es2022'],
	charset: 'utf8',
	legalComments: 'none',
	define: { KAQ_LICENCES: JSON.stringify(licences()) },
	logLevel: 'warning',
});
for (const each of ['index.html', 'icon.svg']) {
	copyFileSync(join(here, each), join(target, each));
}

let sum = 0;
for (const each of readdirSync(target).sort()) {
	const size = gzipSync(readFileSync(join(target, each)), { level: 9 }).length;
	sum += size;
	console.log(`${each} ${size}`);
}
console.log(`all ${sum} bytes gzipped`);
if (sum > LARGEST_BUNDLE) {
	console.error(`the pages are larger than ${LARGEST_BUNDLE} bytes`);
	process.exit(1);
}
