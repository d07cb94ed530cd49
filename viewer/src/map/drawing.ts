/* The graph as boxes in columns, with a line for each call from the left to the right. */
import { el, replace, shortened, svg, type Child } from '../ui/dom';
import { apdexLevel, errorLevel } from '../ui/figures';
import { duration, perMinute, share } from '../ui/format';
import { pageHref } from '../ui/link';
import type { Graph, GraphEdge, GraphNode } from './graph';

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
	readonly path: SVGPathElement;
	readonly label: HTMLElement;
}

export function drawGraph(graph: Graph, minutes: number): HTMLElement {
	const boxes = new Map<string, HTMLElement>();
	const columns: HTMLElement[] = [];
	const last = Math.max(0, ...graph.nodes.map((node) => node.column));
	for (let column = 0; column <= last; column++) {
		const nodes = graph.nodes.filter((node) => node.column === column);
		columns.push(
			el(
				'div',
				{ class: 'map-column' },
				nodes.map((node) => {
					const level = node.application ? apdexLevel(node.application.apdex) : '';
					const box = el('a', { class: `map-node map-${node.kind} ${level ? `map-${level}` : ''}`, href: nodeHref(node), 'data-row': true }, nodeText(node));
					boxes.set(node.id, box);
					return box;
				}),
			),
		);
	}
	const drawing = svg('svg', { class: 'map-lines', 'aria-hidden': 'true' });
	const labels = el('div', { class: 'map-labels', 'aria-hidden': 'true' });
	const placed = graph.edges.map((edge): Placed => {
		const isBad = edge.count > 0 && edge.failed / edge.count >= 0.02;
		const path = svg('path', { class: isBad ? 'map-line is-bad' : 'map-line', fill: 'none' });
		drawing.append(path);
		const label = el('span', { class: isBad ? 'map-label bad' : 'map-label' }, edgeText(edge, minutes), isBad && ` · ${share(edge.failed / edge.count)} err`);
		labels.append(label);
		return { edge, path, label };
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

/* Labels of lines that end at one box stand below each other. */
function place(plane: HTMLElement, drawing: SVGElement, boxes: ReadonlyMap<string, HTMLElement>, placed: readonly Placed[]): void {
	drawing.setAttribute('width', String(plane.scrollWidth));
	drawing.setAttribute('height', String(plane.scrollHeight));
	const arriving = new Map<string, number>();
	for (const { edge, path, label } of placed) {
		const [from, to] = [boxes.get(edge.from), boxes.get(edge.to)];
		if (!from || !to) {
			continue;
		}
		const already = arriving.get(edge.to) ?? 0;
		arriving.set(edge.to, already + 1);
		const [x1, y1] = [from.offsetLeft + from.offsetWidth, from.offsetTop + from.offsetHeight / 2];
		const [x2, y2] = [to.offsetLeft, to.offsetTop + 12 + already * 15];
		const bend = Math.max(40, (x2 - x1) / 2);
		path.setAttribute('d', `M${x1} ${y1}C${x1 + bend} ${y1} ${x2 - bend} ${y2} ${x2 - 2} ${y2}`);
		label.style.setProperty('right', `${plane.clientWidth - x2 + 8}px`);
		label.style.setProperty('top', `${y2 - 16}px`);
	}
	replace(drawing, ...placed.map((each) => each.path));
}
