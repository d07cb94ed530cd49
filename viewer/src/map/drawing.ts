/* The graph as boxes in columns, with a line for each call from the left to the right. */
import { el, replace, shortened, svg, type Child } from '../ui/dom';
import { apdexLevel, errorLevel } from '../ui/figures';
import { duration, perMinute, share } from '../ui/format';
import { pageHref } from '../ui/link';
import type { Graph, GraphEdge, GraphNode, NodeKind } from './graph';
import { columnsOf } from './layers';

const LABEL_HEIGHT = 15;
/* Of many lines that end at one box, these have their figures beside them; the table has all. */
const MOST_LABELS = 6;
/* Where more lines end, they stand nearer. */
const MOST_ROOM = 12 * LABEL_HEIGHT;

const KIND_TEXTS: Readonly<Record<NodeKind, string>> = { application: 'applications', host: 'external hosts', database: 'databases' };

function nodeText(node: GraphNode): Child {
	const { application } = node;
	return [
		el('b', { class: 'cut', title: shortened(node.name, 500) }, shortened(node.name, 200) || '(no name)'),
		application
			? el(
					'span',
					{ class: 'small muted' },
					perMinute(application.calls_per_minute),
					' · p95 ',
					duration(application.p95_ms),
					' · ',
					el('span', { class: errorLevel(application.error_share) }, application.error_share ? `${share(application.error_share)} errors` : 'no errors'),
				)
			: el('span', { class: 'small muted' }, node.kind === 'host' ? 'external host' : 'database'),
	];
}

function nodeHref(node: GraphNode): string {
	switch (node.kind) {
		case 'application':
			return pageHref('transactions', {}, { app: node.name });
		case 'host':
			return pageHref('external');
		case 'database':
			return pageHref('queries');
	}
}

export function edgeText(edge: GraphEdge, minutes: number): string {
	return `${perMinute(edge.count / minutes)} · p95 ${duration(edge.p95_ms)}`;
}

interface Placed {
	readonly edge: GraphEdge;
	/* What it passes through on its way. */
	readonly passages: readonly HTMLElement[];
	readonly path: SVGPathElement;
	readonly label: HTMLElement;
}

function nodeBox(node: GraphNode, onOpen: (kind: NodeKind) => void): HTMLElement {
	if (node.others !== undefined) {
		return el(
			'button',
			{ type: 'button', class: `map-node map-${node.kind} map-others`, 'data-row': true, on: { click: () => onOpen(node.kind) } },
			el('b', {}, `and ${node.others} more ${KIND_TEXTS[node.kind]}`),
			el('span', { class: 'small muted' }, 'those that took least time; show them'),
		);
	}
	const level = node.application ? apdexLevel(node.application.apdex) : '';
	return el('a', { class: `map-node map-${node.kind} ${level ? `map-${level}` : ''}`, href: nodeHref(node), 'data-row': true }, nodeText(node));
}

/* `onOpen` is asked to show all of a kind. */
export function drawGraph(graph: Graph, minutes: number, onOpen: (kind: NodeKind) => void): HTMLElement {
	const boxes = new Map<string, HTMLElement>();
	const passages = new Map<GraphEdge, HTMLElement[]>();
	const columns = columnsOf(graph.nodes, graph.edges).map((nodes) =>
		el(
			'div',
			{ class: 'map-column' },
			nodes.map((node) => {
				if ('edge' in node) {
					const passage = el('div', { class: 'map-passage' });
					passages.set(node.edge, [...(passages.get(node.edge) ?? []), passage]);
					return passage;
				}
				const box = nodeBox(node, onOpen);
				boxes.set(node.id, box);
				return box;
			}),
		),
	);
	const drawing = svg('svg', { class: 'map-lines', 'aria-hidden': 'true' });
	const labels = el('div', { class: 'map-labels', 'aria-hidden': 'true' });
	// Those that took most time have their figures beside them.
	const heaviest = [...graph.edges].sort((one, other) => other.total_ms - one.total_ms);
	const placed = heaviest.map((edge): Placed => {
		const isBad = edge.count > 0 && edge.failed / edge.count >= 0.02;
		const path = svg('path', { class: isBad ? 'map-line is-bad' : 'map-line', fill: 'none' });
		drawing.append(path);
		const label = el('span', { class: isBad ? 'map-label bad' : 'map-label' }, edgeText(edge, minutes), isBad && ` · ${share(edge.failed / edge.count)} err`);
		labels.append(label);
		return { edge, path, label, passages: passages.get(edge) ?? [] };
	});
	const plane = el('div', { class: 'map-plane' }, drawing, columns, labels);
	const sizes = new ResizeObserver(() => {
		if (plane.isConnected) {
			place(plane, drawing, boxes, placed);
		} else {
			sizes.disconnect();
		}
	});
	sizes.observe(plane);
	return el('div', { class: 'map', tabindex: 0, role: 'group', 'aria-label': 'Services and what they call' }, plane);
}

/* Where lines end at one box: from its top on, by where they come from. */
function arrivals(boxes: ReadonlyMap<string, HTMLElement>, placed: readonly Placed[]): ReadonlyMap<string, readonly Placed[]> {
	const all = new Map<string, Placed[]>();
	for (const each of placed) {
		all.set(each.edge.to, [...(all.get(each.edge.to) ?? []), each]);
	}
	const top = (each: Placed) => boxes.get(each.edge.from)?.offsetTop ?? 0;
	for (const ends of all.values()) {
		ends.slice(MOST_LABELS).forEach((each) => (each.label.hidden = true));
		ends.sort((one, other) => top(one) - top(other));
	}
	return all;
}

function place(plane: HTMLElement, drawing: SVGElement, boxes: ReadonlyMap<string, HTMLElement>, placed: readonly Placed[]): void {
	const all = arrivals(boxes, placed);
	const room = (count: number) => Math.min(MOST_ROOM, count * LABEL_HEIGHT);
	for (const [id, ends] of all) {
		boxes.get(id)?.style.setProperty('min-height', `${room(ends.length) + 8}px`);
	}
	drawing.setAttribute('width', String(plane.scrollWidth));
	drawing.setAttribute('height', String(plane.scrollHeight));
	for (const [id, ends] of all) {
		let free = 0;
		ends.forEach((each, i) => {
			const [from, to] = [boxes.get(each.edge.from), boxes.get(id)];
			if (from && to) {
				const y = to.offsetTop + 12 + (i * room(ends.length)) / ends.length;
				placeLine(each, from, to, y);
				each.label.style.setProperty('right', `${plane.clientWidth - to.offsetLeft + 8}px`);
				each.label.style.setProperty('top', `${Math.max(free, y - 16)}px`);
				free = each.label.hidden ? free : Math.max(free, y - 16) + LABEL_HEIGHT;
			}
		});
	}
	replace(drawing, ...placed.map((each) => each.path));
}

function placeLine({ path, passages }: Placed, from: HTMLElement, to: HTMLElement, y2: number): void {
	let [x, y] = [from.offsetLeft + from.offsetWidth, from.offsetTop + from.offsetHeight / 2];
	let way = `M${x} ${y}`;
	const bendTo = (toX: number, toY: number) => {
		const bend = Math.max(40, (toX - x) / 2);
		way += `C${x + bend} ${y} ${toX - bend} ${toY} ${toX} ${toY}`;
		[x, y] = [toX, toY];
	};
	for (const passage of passages) {
		bendTo(passage.offsetLeft, passage.offsetTop);
		x += passage.offsetWidth;
		way += `H${x}`;
	}
	bendTo(to.offsetLeft - 2, y2);
	path.setAttribute('d', way);
}
