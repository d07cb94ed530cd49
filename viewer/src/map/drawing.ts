/* The graph as boxes in columns, with a line for each call. */
import { el, shortened, svg, type Child } from '../ui/dom';
import { apdexLevel, errorLevel } from '../ui/figures';
import { duration, perMinute, share } from '../ui/format';
import { pageHref } from '../ui/link';
import type { Graph, GraphEdge, GraphNode, NodeKind } from './graph';
import { columnsOf } from './layers';
import { placeLines, type Line } from './lines';

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
	const lines = heaviest.map((edge): Line => {
		const isBad = edge.count > 0 && edge.failed / edge.count >= 0.02;
		const path = svg('path', { class: isBad ? 'map-line is-bad' : 'map-line', fill: 'none' });
		const arrow = svg('path', { class: isBad ? 'map-arrow is-bad' : 'map-arrow' });
		drawing.append(path, arrow);
		if (edge.from === edge.to) {
			boxes.get(edge.to)?.classList.add('calls-itself');
		}
		const label = el('span', { class: isBad ? 'map-label bad' : 'map-label' }, edgeText(edge, minutes), isBad && ` · ${share(edge.failed / edge.count)} err`);
		labels.append(label);
		return { edge, path, arrow, label, passages: passages.get(edge) ?? [] };
	});
	const plane = el('div', { class: 'map-plane' }, drawing, columns, labels);
	const sizes = new ResizeObserver(() => {
		if (plane.isConnected) {
			placeLines(boxes, lines);
			drawing.setAttribute('width', String(plane.scrollWidth));
			drawing.setAttribute('height', String(plane.scrollHeight));
		} else {
			sizes.disconnect();
		}
	});
	sizes.observe(plane);
	return el('div', { class: 'map', tabindex: 0, role: 'group', 'aria-label': 'Services and what they call' }, plane);
}
