/* Reads figures that a page shows, and holds them against exact ones. */
import assert from 'node:assert/strict';

export function percentile(values, share) {
	const sorted = [...values].sort((one, other) => one - other);
	return sorted[Math.max(0, Math.ceil(sorted.length * share) - 1)];
}

/* `1.4 s` as milliseconds. */
export function milliseconds(text) {
	const [, number, unit] = /^([\d.,]+) (ms|s)$/.exec(text) ?? assert.fail(`${text} is no duration`);
	return Number(number.replaceAll(',', '')) * (unit === 's' ? 1000 : 1);
}

/* Within 1 % and half a millisecond of the exact one, and as far as it was rounded. */
export function assertDuration(text, exact) {
	assert.ok(Math.abs(milliseconds(text) - exact) <= exact * 0.02 + 1, `${text} is not ${exact} ms`);
}

const UNITS = { ms: 1, s: 1000, min: 60000, h: 3600000, d: 86400000, '%': 0.01, k: 1e3, M: 1e6, G: 1e9, KiB: 1024, MiB: 1 << 20 };

/* What a text such as `~ 2 min 5 s`, `12.3 k`, `0.4 %` or `+1.2/min` says, in milliseconds, shares or times; null: nothing. */
export function figure(text) {
	if (text.startsWith('–')) {
		return null;
	}
	const parts = [...text.replaceAll(',', '').matchAll(/(-?[\d.]+) ?(ms|s|min|h|d|%|k|M|G|KiB|MiB)?(?![a-z])/g)];
	const sign = parts[0][1].startsWith('-') ? -1 : 1;
	return sign * parts.reduce((sum, [, number, unit]) => sum + Math.abs(Number(number)) * (unit === undefined ? 1 : UNITS[unit]), 0);
}

/* Three digits are shown; of milliseconds whole ones, below ten of them tenths. */
export function assertFigure(text, exact, what) {
	if (exact === null || exact === undefined) {
		assert.equal(figure(text), null, what);
		return;
	}
	const least = text.includes('%') ? 0.0001 : text.endsWith(' ms') && Math.abs(exact) >= 9.9 ? 0.501 : 0.051;
	assert.ok(Math.abs(figure(text) - exact) <= Math.abs(exact) * 0.006 + least, `${what}: ${text} is not ${exact}`);
}

/* The cells of each row by their titles; of times, the exact one. */
export async function rowsOf(scope) {
	return scope.locator('tbody tr[data-row]').evaluateAll((rows) =>
		rows.map((row) =>
			Object.fromEntries(
				[...row.querySelectorAll('td[data-title]')].map((cell) => [cell.dataset.title, cell.querySelector('time')?.dateTime ?? cell.innerText.split('\n')[0].trim()]),
			),
		),
	);
}

/* Every cell is what `expected` gives for its column; the rows stand in the order of `answers`. */
export function assertRows(shown, answers, expected, name) {
	assert.equal(shown.length, answers.length);
	assert.ok(answers.length > 0);
	answers.forEach((answer, i) => {
		for (const [title, value] of Object.entries(expected(answer))) {
			assert.ok(title in shown[i], `there is no column ${title}`);
			assertFigure(shown[i][title], value, `${name(answer)}, ${title}`);
		}
	});
}
