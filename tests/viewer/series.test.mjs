/* Steps of a curve, and rates of those that are not over. */
import assert from 'node:assert/strict';
import test from 'node:test';
import { source } from './source.mjs';

const { stepsOf } = await source('ui/series.ts');

const MINUTE = 60000;
const HOUR = 60 * MINUTE;
const BEGIN = 472222 * HOUR;

function points(step, counts) {
	return counts.map((count, i) => ({ time_ms: BEGIN + i * step, count }));
}

function rates(from, to, step, counts) {
	return stepsOf({ from_ms: BEGIN + from, to_ms: BEGIN + to }, step, points(step, counts)).rates();
}

test('a rate is that of a whole step', () => {
	assert.deepEqual(rates(0, 15 * MINUTE, 5 * MINUTE, [50, 0, 5]), [10, 0, 1]);
});

test('the last step counts by the part of it that has passed', () => {
	assert.deepEqual(rates(0, 12.5 * MINUTE, 5 * MINUTE, [50, 50, 25]), [10, 10, 10]);
});

test('a step that has just begun has no rate', () => {
	assert.deepEqual(rates(0, 11 * MINUTE, 5 * MINUTE, [50, 50, 1]), [10, 10, null]);
});

test('the first step counts from the minute in which the range begins', () => {
	assert.deepEqual(rates(2.5 * MINUTE, 10 * MINUTE, 5 * MINUTE, [30, 50]), [10, 10]);
});

test('steps of more than an hour are whole, as their figures are', () => {
	assert.deepEqual(rates(90 * MINUTE, 4 * HOUR, 2 * HOUR, [1200, 1200]), [10, 10]);
});

test('what is known from before the range is a whole step', () => {
	const known = [{ time_ms: BEGIN - 5 * MINUTE, count: 50 }, { time_ms: BEGIN, count: 50 }];
	assert.deepEqual(stepsOf({ from_ms: BEGIN, to_ms: BEGIN + 5 * MINUTE }, 5 * MINUTE, known).rates(), [10, 10]);
});
