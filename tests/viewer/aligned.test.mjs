/* Calls of two large requests side by side: of many spans, and of many within each other. */
import assert from 'node:assert/strict';
import test from 'node:test';
import { source } from './source.mjs';

const { alignedTree, shownOf, wholeOf } = await source('compare/aligned.ts');

const SPANS = 100000;
const MOST = 150;

const span = (i, parent, from, to) => ({ name: `call ${i}`, parent, start_ms: from, duration_ms: to - from });

function shown(before, after) {
	return shownOf(alignedTree(before, after), wholeOf(before, after));
}

test('the longest of many calls are shown', () => {
	const flat = (long) => Array.from({ length: SPANS }, (_, i) => (i === 0 ? span(0, -1, 0, SPANS) : span(i, 0, i, i + (i === long ? 5000 : 1))));
	const rows = shown(flat(70000), flat(90000));
	assert.deepEqual(rows.map((row) => row.name), ['call 0', 'call 70000', 'call 90000']);
	assert.equal(wholeOf(flat(0), flat(99999)), SPANS - 1 + 5000);
});

test('of calls within each other the outer ones are shown', () => {
	const deep = Array.from({ length: SPANS }, (_, i) => span(i, i - 1, 0, 1000));
	const rows = shown(deep, deep.slice(0, 10));
	assert.deepEqual(rows.map((row) => row.name), Array.from({ length: MOST }, (_, i) => `call ${i}`));
});

test('calls stand below the one that calls them, by when they begin', () => {
	const tree = [span(0, -1, 0, 100), span(1, 0, 50, 90), span(2, 0, 10, 40), span(3, 1, 60, 80)];
	assert.deepEqual(shown(tree, tree).map((row) => [row.name, row.depth]), [['call 0', 0], ['call 2', 1], ['call 1', 1], ['call 3', 2]]);
});
