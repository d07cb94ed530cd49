/* Modules of the viewer's sources, as Node runs them. */
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { pathToFileURL } from 'node:url';
import { requirePackage, VIEWER } from './modules.mjs';

/* What viewer/src/PATH exports. */
export async function source(path) {
	const { build } = requirePackage('esbuild');
	const directory = mkdtempSync(join(tmpdir(), 'kaq-source-'));
	try {
		const outfile = join(directory, 'module.mjs');
		await build({ entryPoints: [join(VIEWER, 'src', path)], outfile, bundle: true, format: 'esm', target: 'es2022', logLevel: 'silent' });
		return await import(pathToFileURL(outfile).href);
	} finally {
		rmSync(directory, { recursive: true, force: true });
	}
}
