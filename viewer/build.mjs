// Bundles the pages: node build.mjs DIRECTORY. What the collector serves is in DIRECTORY/files, and
// DIRECTORY/viewer_files.cpp has it for the compiler; DIRECTORY/shared_file.html is the page of files
// that hold a request, and shared_file_page.cpp has that. Needs the packages of package.json.
import { createHash } from 'node:crypto';
import { copyFileSync, mkdirSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { dirname, extname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { gzipSync } from 'node:zlib';
import { build } from 'esbuild';
import { sharedFilePage } from './shared_file.mjs';

const LARGEST_BUNDLE = 150 * 1000; // bytes, gzipped, all files together

const TYPES = {
	'.html': 'text/html; charset=utf-8',
	'.js': 'text/javascript; charset=utf-8',
	'.css': 'text/css; charset=utf-8',
	'.svg': 'image/svg+xml',
};

const here = dirname(fileURLToPath(import.meta.url));
if (process.argv.length !== 3) {
	console.error('usage: node build.mjs DIRECTORY');
	process.exit(2);
}
const directory = resolve(process.argv[2]);
const target = join(directory, 'files');
const packed = join(directory, 'packed');

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

for (const each of [target, packed]) {
	rmSync(each, { recursive: true, force: true });
	mkdirSync(each, { recursive: true });
}

function bundle(entries, outdir) {
	return build({
		entryPoints: entries.map((each) => join(here, each)),
		entryNames: '[name]',
		outdir,
		bundle: true,
		minify: true,
		format: 'iife',
		target: ['es2022'],
		charset: 'utf8',
		legalComments: 'none',
		define: { KAQ_LICENCES: JSON.stringify(licences()) },
		logLevel: 'warning',
	});
}

await bundle(['src/app.ts', 'style/app.css'], target);
await bundle(['src/shared_file.ts', 'style/shared_file.css'], packed);
const sharedFile = join(directory, 'shared_file.html');
writeFileSync(sharedFile, sharedFilePage(...['js', 'css'].map((end) => readFileSync(join(packed, `shared_file.${end}`), 'utf8'))));
for (const each of ['index.html', 'icon.svg']) {
	copyFileSync(join(here, each), join(target, each));
}

// The file's bytes between two symbols of the program.
function embedded(symbol, path) {
	return [
		`asm(".section .rodata\\n"`,
		`\t".hidden ${symbol}_begin\\n.globl ${symbol}_begin\\n${symbol}_begin:\\n"`,
		`\t".incbin \\"${path}\\"\\n"`,
		`\t".hidden ${symbol}_end\\n.globl ${symbol}_end\\n${symbol}_end:\\n"`,
		`\t".byte 0\\n.previous\\n");`,
		`extern "C" const char ${symbol}_begin[], ${symbol}_end[];`,
		'',
	].join('\n');
}

function view(symbol) {
	return `{${symbol}_begin, static_cast<size_t>(${symbol}_end - ${symbol}_begin)}`;
}

const sharedSize = gzipSync(readFileSync(sharedFile), { level: 9 }).length;
console.log(`shared_file.html ${sharedSize}`);
let sum = sharedSize;
let symbols = '';
let rows = '';
const names = readdirSync(target).sort();
names.forEach((name, i) => {
	const bytes = readFileSync(join(target, name));
	const gzip = gzipSync(bytes, { level: 9 });
	writeFileSync(join(packed, `${name}.gz`), gzip);
	sum += gzip.length;
	console.log(`${name} ${gzip.length}`);
	const etag = createHash('sha256').update(bytes).digest('hex').slice(0, 16);
	const [plain, small] = [`kaq_viewer_${i}`, `kaq_viewer_${i}_gzip`];
	symbols += embedded(plain, join(target, name)) + embedded(small, join(packed, `${name}.gz`));
	rows += `\t\t{"/${name}", "${TYPES[extname(name)]}", "\\"${etag}\\"", ${view(plain)}, ${view(small)}},\n`;
});
writeFileSync(
	join(directory, 'viewer_files.cpp'),
	`#include "http/viewer_files.h"\n\n#include <cstddef>\n\n${symbols}
const std::vector<kaq::ViewerFile> &kaq::viewer_files() {
	static const std::vector<ViewerFile> kFiles = {\n${rows}\t};
	return kFiles;
}\n`,
);
writeFileSync(
	join(directory, 'shared_file_page.cpp'),
	`#include "query/shared_file.h"\n\n#include <cstddef>\n\n${embedded('kaq_shared_file', sharedFile)}
std::string_view kaq::shared_file_page() {
	return ${view('kaq_shared_file')};
}\n`,
);
console.log(`all ${sum} bytes gzipped`);
if (sum > LARGEST_BUNDLE) {
	console.error(`the pages are larger than ${LARGEST_BUNDLE} bytes`);
	process.exit(1);
}
