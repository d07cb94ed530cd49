/* Packages of viewer/package.json, wherever they were installed: beside it, or in KAQ_VIEWER_MODULES. */
import { createRequire } from 'node:module';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

export const HERE = dirname(fileURLToPath(import.meta.url));
export const VIEWER = join(HERE, '..', '..', 'viewer');

export const requirePackage = createRequire(join(process.env.KAQ_VIEWER_MODULES ?? VIEWER, 'package.json'));
