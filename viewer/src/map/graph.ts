/*
 * Who calls whom: applications, the hosts that they call and their databases. A host that an
 * application is asked under is that application.
 */
import type { Application, AskedHost, CalledHost, Statement } from '../api/types';

export type NodeKind = 'application' | 'host' | 'database';

export interface GraphNode {
	readonly id: string;
	readonly kind: NodeKind;
	readonly name: string;
	readonly application?: Application;
	/* It stands for so many of its kind. */
	readonly others?: number;
}

export interface GraphEdge {
	readonly from: string;
	readonly to: string;
	count: number;
	failed: number;
	total_ms: number;
	/* Of the slowest host where several are one service. */
	p95_ms: number | null;
	readonly example: string;
}

export interface Graph {
	readonly nodes: readonly GraphNode[];
	readonly edges: readonly GraphEdge[];
}

/* The usual ports are not named. */
function hostName(host: string): string {
	return host.toLowerCase().replace(/:(80|443)$/, '');
}

/* The application that is asked under this host most. */
function owners(hosts: readonly AskedHost[]): ReadonlyMap<string, string> {
	const best = new Map<string, AskedHost>();
	for (const each of hosts) {
		const name = hostName(each.host);
		if (name && (best.get(name)?.requests ?? 0) < each.requests) {
			best.set(name, each);
		}
	}
	return new Map([...best].map(([name, each]) => [name, each.application]));
}

class Builder {
	private readonly nodes = new Map<string, GraphNode>();
	private readonly edges = new Map<string, GraphEdge>();

	node(kind: NodeKind, name: string, application?: Application): string {
		const id = `${kind} ${name}`;
		if (!this.nodes.has(id)) {
			this.nodes.set(id, { id, kind, name, ...(application ? { application } : {}) });
		}
		return id;
	}

	edge(from: string, to: string, row: CalledHost | Statement): void {
		const id = JSON.stringify([from, to]);
		const edge = this.edges.get(id) ?? { from, to, count: 0, failed: 0, total_ms: 0, p95_ms: null, example: row.example };
		edge.count += row.count;
		edge.failed += row.failed;
		edge.total_ms += row.total_ms;
		edge.p95_ms = Math.max(edge.p95_ms ?? 0, row.p95_ms ?? 0);
		this.edges.set(id, edge);
	}

	build(): Graph {
		return { nodes: [...this.nodes.values()], edges: [...this.edges.values()] };
	}
}

export interface GraphData {
	readonly applications: readonly Application[];
	readonly hosts: readonly AskedHost[];
	readonly calls: readonly CalledHost[];
	readonly statements: readonly Statement[];
	/* Only what this one calls, and what calls it. */
	readonly app: string;
}

function databaseName(row: Statement): string {
	return [row.component, row.database, row.server && `on ${row.server}`].filter(Boolean).join(' ') || 'database';
}

export function graphOf(data: GraphData): Graph {
	const builder = new Builder();
	const owner = owners(data.hosts);
	const known = new Map(data.applications.map((each) => [each.application, each]));
	const isWanted = (...names: readonly (string | undefined)[]) => !data.app || names.includes(data.app);
	for (const each of data.applications.filter((one) => isWanted(one.application))) {
		builder.node('application', each.application, each);
	}
	for (const call of data.calls) {
		const callee = owner.get(hostName(call.host));
		if (isWanted(call.application, callee)) {
			const from = builder.node('application', call.application, known.get(call.application));
			const to = callee === undefined ? builder.node('host', call.host) : builder.node('application', callee, known.get(callee));
			builder.edge(from, to, call);
		}
	}
	for (const statement of data.statements.filter((one) => isWanted(one.application))) {
		const from = builder.node('application', statement.application, known.get(statement.application));
		builder.edge(from, builder.node('database', databaseName(statement)), statement);
	}
	return builder.build();
}
