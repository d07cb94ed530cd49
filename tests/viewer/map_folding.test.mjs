/* What of many services stands as one box, and what its line tells. */
import assert from 'node:assert/strict';
import test from 'node:test';
import { source } from './source.mjs';

const { folded, MOST_OF_KIND } = await source('map/folding.ts');

const MORE = 4;

test('the line to services that stand as one adds them up and has the slowest p95', () => {
	const hosts = Array.from({ length: MOST_OF_KIND.host + MORE }, (_, i) => ({ id: `host ${i}`, kind: 'host', name: `partner-${i}` }));
	// The lightest have neither the first nor the last of their p95 as the largest.
	const edges = hosts.map(({ id }, i) => ({ from: 'shop', to: id, host: id, count: 10 + i, failed: i, total_ms: 1000 * (1 + i), p95_ms: [40, 90, 20, 60][i % 4] }));
	const graph = folded({ nodes: [{ id: 'shop', kind: 'application', name: 'Shop' }, ...hosts], edges });
	const others = edges.slice(0, MORE);
	const sum = (member) => others.reduce((all, each) => all + each[member], 0);
	const line = graph.edges.filter((each) => each.to === 'others host');
	assert.deepEqual(line.map((each) => [each.from, each.count, each.failed, each.total_ms, each.p95_ms]), [['shop', sum('count'), sum('failed'), sum('total_ms'), 90]]);
	assert.equal(graph.edges.length, MOST_OF_KIND.host + 1);
	assert.equal(graph.nodes.find((each) => each.id === 'others host').others, MORE);
});
