/* What axe-core finds wrong with a page. */
import { readFileSync } from 'node:fs';
import { requirePackage } from './modules.mjs';

const axe = readFileSync(requirePackage.resolve('axe-core/axe.min.js'), 'utf8');

export async function accessibilityProblems(page) {
	// The page's policy lets no other program in; a debugger's evaluation is none of the page's.
	await page.evaluate(axe);
	const { violations } = await page.evaluate(() => globalThis.axe.run(document, { runOnly: ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa'] }));
	return violations.flatMap((each) => each.nodes.map((node) => `${each.id}: ${node.target.join(' ')} ${node.failureSummary ?? ''}`));
}
