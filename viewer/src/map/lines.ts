/*
 * Where the lines of the map lie. A call leads from the right side of a box to the left side of one in a
 * column further on, a call back from the left side to the right side, and a call to itself below the box.
 */
import type { GraphEdge } from './graph';

const LABEL_HEIGHT = 15;
/* Of many lines that end at one side of a box, these have their figures beside them; the table has all. */
const MOST_LABELS = 6;
/* Where more lines end, they stand nearer. */
const MOST_ROOM = 12 * LABEL_HEIGHT;
/* Between a box and the figures beside it. */
const BESIDE = 8;
/* From a box's upper end to the first line that ends there, and from the last one to its lower end. */
const FIRST = 12;
const LAST = 10;
const ARROW = 6;
const LOOP = { left: 24, width: 36, depth: 22 } as const;

export interface Line {
	readonly edge: GraphEdge;
	/* What it passes through on its way, from the left. */
	readonly passages: readonly HTMLElement[];
	readonly path: SVGPathElement;
	readonly arrow: SVGPathElement;
	readonly label: HTMLElement;
}

type Way = 'on' | 'back' | 'own';

/* Lines that end at one side of a box, from its top on by where they come from. */
interface Arrival {
	readonly to: HTMLElement;
	readonly way: Way;
	readonly lines: readonly (Line & { readonly from: HTMLElement })[];
}

interface Area {
	readonly left: number;
	readonly right: number;
	readonly top: number;
	readonly bottom: number;
}

function wayOf(from: HTMLElement, to: HTMLElement): Way {
	return from === to ? 'own' : from.offsetLeft < to.offsetLeft ? 'on' : 'back';
}

function middle(box: HTMLElement): number {
	return box.offsetTop + box.offsetHeight / 2;
}

function rightOf(box: HTMLElement): number {
	return box.offsetLeft + box.offsetWidth;
}

function bottomOf(box: HTMLElement): number {
	return box.offsetTop + box.offsetHeight;
}

/* Lines come with the heaviest first. */
function arrivalsOf(boxes: ReadonlyMap<string, HTMLElement>, lines: readonly Line[]): Arrival[] {
	const all = new Map<string, { to: HTMLElement; way: Way; lines: (Line & { from: HTMLElement })[] }>();
	for (const line of lines) {
		const [from, to] = [boxes.get(line.edge.from), boxes.get(line.edge.to)];
		if (from && to) {
			const way = wayOf(from, to);
			const key = `${way} ${line.edge.to}`;
			const arrival = all.get(key) ?? { to, way, lines: [] };
			line.label.hidden = arrival.lines.length >= MOST_LABELS;
			arrival.lines.push({ ...line, from });
			all.set(key, arrival);
		}
	}
	for (const arrival of all.values()) {
		arrival.lines.sort((one, other) => one.from.offsetTop - other.from.offsetTop);
	}
	// What leads on has its figures where they are looked for; others give way.
	return [...all.values()].sort((one, other) => Number(one.way !== 'on') - Number(other.way !== 'on'));
}

function room(count: number): number {
	return Math.min(MOST_ROOM, count * LABEL_HEIGHT);
}

/* So that each line has an end of its own, and those that begin there as well. */
function makeRoom(arrivals: readonly Arrival[]): void {
	const heights = new Map<HTMLElement, number>();
	const needs = (box: HTMLElement, height: number) => heights.set(box, Math.max(heights.get(box) ?? 0, height));
	const callsBack = new Set(arrivals.filter(({ way }) => way === 'back').flatMap(({ lines }) => lines.map((line) => line.from)));
	for (const { to, way, lines } of arrivals) {
		if (way === 'on') {
			needs(to, room(lines.length) + 8 + (callsBack.has(to) ? LABEL_HEIGHT : 0));
		} else if (way === 'back') {
			// The lines that begin at this side begin in its middle.
			needs(to, 2 * (room(lines.length) + LAST));
		}
	}
	for (const [box, height] of heights) {
		box.style.setProperty('min-height', `${height}px`);
	}
}

/* REQUIRES: the boxes are in the page. */
export function placeLines(boxes: ReadonlyMap<string, HTMLElement>, lines: readonly Line[]): void {
	const arrivals = arrivalsOf(boxes, lines);
	makeRoom(arrivals);
	const widths = new Map(lines.map(({ label }) => [label, label.offsetWidth]));
	const taken: Area[] = [];
	for (const { to, way, lines: ends } of arrivals) {
		const step = room(ends.length) / ends.length;
		ends.forEach((line, i) => {
			const y = way === 'back' ? bottomOf(to) - LAST - (ends.length - 1 - i) * step : to.offsetTop + FIRST + i * step;
			draw(line, line.from, to, y);
			placeLabel(line.label, widths.get(line.label) ?? 0, labelPlace(way, to, y), taken);
		});
	}
}

interface LabelPlace {
	readonly top: number;
	/* The side that stands beside the box. */
	readonly left?: number;
	readonly right?: number;
}

function labelPlace(way: Way, to: HTMLElement, y: number): LabelPlace {
	switch (way) {
		case 'on':
			return { right: to.offsetLeft - BESIDE, top: y - LABEL_HEIGHT - 1 };
		case 'back':
			return { left: rightOf(to) + BESIDE, top: y - LABEL_HEIGHT - 1 };
		case 'own':
			return { left: to.offsetLeft + LOOP.left + LOOP.width + BESIDE, top: bottomOf(to) + 3 };
	}
}

/* Below what is there already. */
function placeLabel(label: HTMLElement, width: number, place: LabelPlace, taken: Area[]): void {
	const left = place.left ?? (place.right ?? 0) - width;
	const right = left + width;
	let { top } = place;
	const under = () => taken.find((each) => each.left < right && each.right > left && each.top < top + LABEL_HEIGHT && each.bottom > top);
	for (let each = under(); each && width > 0; each = under()) {
		top = each.bottom;
	}
	label.style.setProperty('left', `${left}px`);
	label.style.setProperty('top', `${top}px`);
	if (width > 0) {
		taken.push({ left, right, top, bottom: top + LABEL_HEIGHT });
	}
}

/* `y` is where it ends. */
function draw(line: Line, from: HTMLElement, to: HTMLElement, y: number): void {
	switch (wayOf(from, to)) {
		case 'on':
			drawThrough(line, { x: rightOf(from), y: middle(from) }, { x: to.offsetLeft, y }, 1);
			break;
		case 'back':
			drawThrough(line, { x: from.offsetLeft, y: bottomOf(from) - LAST }, { x: rightOf(to), y }, -1);
			break;
		case 'own':
			drawLoop(line, to);
			break;
	}
}

interface Point {
	readonly x: number;
	readonly y: number;
}

/* Between the boxes of the columns on its way: to the right where `direction` is 1, to the left where it is -1. */
function drawThrough({ path, arrow, passages }: Line, from: Point, to: Point, direction: 1 | -1): void {
	let [x, y] = [from.x, from.y];
	let way = `M${x} ${y}`;
	const bendTo = (toX: number, toY: number) => {
		const bend = direction * Math.max(40, Math.abs(toX - x) / 2);
		way += `C${x + bend} ${y} ${toX - bend} ${toY} ${toX} ${toY}`;
		[x, y] = [toX, toY];
	};
	for (const passage of direction > 0 ? passages : [...passages].reverse()) {
		const [left, right] = [passage.offsetLeft, rightOf(passage)];
		bendTo(direction > 0 ? left : right, passage.offsetTop);
		x = direction > 0 ? right : left;
		way += `H${x}`;
	}
	bendTo(to.x - direction * 2, to.y);
	path.setAttribute('d', way);
	arrow.setAttribute('d', `M${to.x - direction} ${to.y}l${-direction * ARROW} -3.5v7z`);
}

function drawLoop({ path, arrow }: Line, box: HTMLElement): void {
	const [left, top] = [box.offsetLeft + LOOP.left, bottomOf(box)];
	const right = left + LOOP.width;
	path.setAttribute('d', `M${left} ${top}C${left} ${top + LOOP.depth} ${right} ${top + LOOP.depth} ${right} ${top + 2}`);
	arrow.setAttribute('d', `M${right} ${top + 1}l-3.5 ${ARROW}h7z`);
}
