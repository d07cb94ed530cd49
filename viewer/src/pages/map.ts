/* Services and what they call. */
import { api } from '../api/services';
import { changed, go, here, type Address } from '../state/address';
import { heldSort } from '../state/held';
import { drawGraph } from '../map/drawing';
import { folded } from '../map/folding';
import { graphOf, type Graph, type GraphEdge, type GraphNode, type NodeKind } from '../map/graph';
import { el, shortened, type Child } from '../ui/dom';
import { errorLevel } from '../ui/figures';
import { duration, perMinute, share, shortCount } from '../ui/format';
import { pageLink, requestLink } from '../ui/link';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';
import { emptyState } from '../ui/states';
import { table, type Column } from '../ui/table';
import { ofAllHosts } from './of_host';
import { scopeOf } from './scope';

const MOST = 500;
const SHORTEST_MINUTES = 1;

function nameCell(node: GraphNode | undefined): Child {
	const name = shortened(node?.name ?? '', 200);
	return node?.kind === 'application' ? pageLink('transactions', {}, { app: node.name }, name) : name;
}

function edgeTable(graph: Graph, minutes: number): HTMLElement {
	const nodes = new Map(graph.nodes.map((node) => [node.id, node]));
	const columns: Column<GraphEdge>[] = [
		{ key: 'from', title: 'From', by: (row) => nodes.get(row.from)?.name ?? '', cell: (row) => el('span', { class: 'cut map-from' }, nameCell(nodes.get(row.from))) },
		{ key: 'to', title: 'To', isMain: true, by: (row) => nodes.get(row.to)?.name ?? '', cell: (row) => el('span', { class: 'cut' }, nameCell(nodes.get(row.to))) },
		{ key: 'count', title: 'Calls', align: 'right', by: (row) => row.count, cell: (row) => shortCount(row.count) },
		{ key: 'rate', title: 'Rate', align: 'right', by: (row) => row.count, cell: (row) => perMinute(row.count / minutes) },
		{ key: 'p95', title: 'p95', help: 'Of the slowest statement, or of the slowest host', align: 'right', by: (row) => row.p95_ms, cell: (row) => duration(row.p95_ms) },
		{ key: 'total', title: 'In all', align: 'right', by: (row) => row.total_ms, cell: (row) => duration(row.total_ms) },
		{
			key: 'errors',
			title: 'Errors',
			align: 'right',
			by: (row) => row.failed / Math.max(1, row.count),
			cell: (row) => el('span', { class: errorLevel(row.failed / Math.max(1, row.count)) }, share(row.failed / Math.max(1, row.count))),
		},
		{ key: 'example', title: 'Example', cell: (row) => requestLink(row.example, 'open') },
	];
	return table({ caption: 'Calls', columns, rows: graph.edges, ...heldSort('total') });
}

/* The way back from all of a kind. */
function fewer(address: Address): Child {
	return address.own.all && el('p', {}, pageLink('map', {}, {}, 'Show fewer boxes'));
}

async function content(address: Address, signal: AbortSignal): Promise<Child> {
	const all = { from: address.from, to: address.to };
	const [applications, hosts, calls, queries] = await Promise.all([
		api.applications({ ...all, limit: MOST }, signal),
		api.hosts({ ...all, limit: MOST }, signal),
		api.calls({ ...all, limit: MOST }, signal),
		api.queries({ ...scopeOf(address), limit: MOST }, signal),
	]);
	const graph = graphOf({ applications: applications.applications, hosts: hosts.hosts, calls: calls.hosts, statements: queries.statements, app: address.app });
	const minutes = Math.max(SHORTEST_MINUTES, applications.range.minutes ?? 0);
	const opened = new Set((address.own.all ?? '').split(' '));
	const open = (kind: NodeKind) => go(changed(here(), { own: { all: [...opened, kind].join(' ').trim() } }));
	return graph.nodes.length === 0
		? emptyState('No service was seen in this time.', 'Take a longer time, or all applications.')
		: [ofAllHosts(address), fewer(address), drawGraph(folded(graph, opened), minutes, open), graph.edges.length > 0 ? edgeTable(graph, minutes) : emptyState('None of them calls another, or a database.')];
}

export function mapPage(): Page {
	const panel = new Panel('', { what: 'The map' });
	return {
		element: el('div', { class: 'page' }, el('h1', {}, 'Map'), panel.element),
		title: () => 'Map',
		show: (address) => void panel.fill((signal) => content(address, signal)),
		end: () => panel.end(),
	};
}
