/* The services of the interface, one function each. */
import { ask, tell, type Parameters } from './ask';
import type {
	Applications,
	AskedHost,
	CalledHost,
	Comparison,
	Completions,
	Curve,
	DoctorReports,
	DurationBuckets,
	FailureGroup,
	FigureKind,
	FoundKind,
	Mark,
	OneRequest,
	Profile,
	Range,
	Requests,
	Statement,
	Status,
	Top,
	Trace,
} from './types';

/* What most questions are narrowed by; as the address has it. */
export interface Scope {
	readonly from?: string | undefined;
	readonly to?: string | undefined;
	readonly app?: string | undefined;
	readonly txn?: string | undefined;
}

/* Questions about transactions may be narrowed by a query and a host, too. */
export interface Narrowed extends Scope {
	readonly q?: string | undefined;
	readonly host?: string | undefined;
}

type Listed<Name extends string, Row> = Readonly<Record<Name, readonly Row[]>> & {
	readonly range: Range;
	readonly more: boolean;
	readonly partial?: boolean;
};

interface ListOptions {
	readonly sort?: string;
	readonly limit?: number;
	/* With it each row has a curve. */
	readonly step?: number;
}

export const api = {
	requests: (
		parameters: Omit<Scope, 'txn'> & { q?: string | undefined; host?: string | undefined; order?: 'newest' | 'slowest'; limit?: number },
		signal?: AbortSignal,
	) => ask<Requests>('/api/v1/requests', parameters, signal),
	request: (id: string, signal?: AbortSignal) => ask<OneRequest>('/api/v1/request', { id }, signal),
	trace: (id: string, signal?: AbortSignal) => ask<Trace>('/api/v1/trace', { id }, signal),
	compare: (parameters: { a: string; b?: string; typical?: boolean; limit?: number }, signal?: AbortSignal) =>
		ask<Comparison>('/api/v1/compare', parameters, signal),
	top: (parameters: Narrowed & ListOptions & { apdex?: number }, signal?: AbortSignal) =>
		ask<Top>('/api/v1/top', { ...parameters }, signal),
	applications: (parameters: Narrowed & { apdex?: number; step?: number; limit?: number }, signal?: AbortSignal) =>
		ask<Applications>('/api/v1/applications', { ...parameters }, signal),
	hosts: (parameters: Omit<Scope, 'txn'> & { limit?: number }, signal?: AbortSignal) =>
		ask<{ readonly hosts: readonly AskedHost[] }>('/api/v1/hosts', { ...parameters }, signal),
	durations: (parameters: Narrowed, signal?: AbortSignal) => ask<DurationBuckets>('/api/v1/durations', { ...parameters }, signal),
	profile: (parameters: Narrowed & { limit?: number }, signal?: AbortSignal) => ask<Profile>('/api/v1/profile', { ...parameters }, signal),
	queries: (parameters: Scope & ListOptions, signal?: AbortSignal) =>
		ask<Listed<'statements', Statement>>('/api/v1/queries', { ...parameters }, signal),
	errors: (parameters: Scope & ListOptions, signal?: AbortSignal) =>
		ask<Listed<'errors', FailureGroup>>('/api/v1/errors', { ...parameters }, signal),
	calls: (parameters: Scope & ListOptions, signal?: AbortSignal) =>
		ask<Listed<'hosts', CalledHost>>('/api/v1/calls', { ...parameters }, signal),
	findings: (parameters: Narrowed & ListOptions, signal?: AbortSignal) =>
		ask<Listed<'findings', FoundKind>>('/api/v1/findings', { ...parameters }, signal),
	curve: (parameters: Narrowed & { kind?: FigureKind; text?: string; step?: number; apdex?: number }, signal?: AbortSignal) =>
		ask<Curve>('/api/v1/curve', { ...parameters }, signal),
	marks: (parameters: Omit<Scope, 'txn'>, signal?: AbortSignal) =>
		ask<{ readonly marks: readonly Mark[] }>('/api/v1/marks', { ...parameters }, signal),
	completions: (q: string, cursor: number, signal?: AbortSignal) =>
		ask<Completions>('/api/v1/completions', { q, cursor }, signal),
	status: (signal?: AbortSignal) => ask<Status>('/api/v1/status', {}, signal),
	doctor: (signal?: AbortSignal) => ask<DoctorReports>('/api/v1/doctor', {}, signal),
	pin: (id: string) => tell<{ readonly id: string }>('/api/v1/pin', { id }),
	unpin: (id: string) => tell<{ readonly id: string }>('/api/v1/unpin', { id }),
};

export const EXPORT_FORMATS = ['html', 'speedscope', 'perfetto', 'json'] as const;

/* Parameters of a link that downloads a request or a trace for another program. */
export function exportParameters(id: string, format: (typeof EXPORT_FORMATS)[number]): Parameters {
	return { id, format };
}
