/*
 * The answers of the interface, as docs/openapi.yaml describes them. Times are milliseconds since
 * 1970, durations milliseconds, sizes bytes, shares from 0 to 1.
 */

export type Layer = 'code' | 'database' | 'cache' | 'http' | 'other';

/* Pairs of a name and a value. */
export type Fields = readonly (readonly [string, string])[];

export interface RequestRow {
	readonly id: string;
	readonly trace_id: string;
	readonly application: string;
	readonly name: string;
	readonly path: string;
	readonly method: string;
	readonly host: string;
	readonly instance: string;
	readonly start_ms: number;
	readonly duration_ms: number;
	readonly cpu_ms: number;
	readonly memory_bytes: number;
	readonly status: number;
	readonly spans: number;
	readonly queries: number;
	readonly calls: number;
	readonly failures: number;
	readonly query_ms: number;
	readonly external_ms: number;
	readonly web: boolean;
	readonly failed: boolean;
	readonly verdict?: string;
	readonly gain_ms?: number;
	readonly findings?: readonly string[];
	readonly kept?: boolean;
	readonly pinned?: boolean;
}

export interface Requests {
	readonly requests: readonly RequestRow[];
	readonly more: boolean;
	readonly partial: boolean;
	readonly looked_at: number;
}

export interface Finding {
	readonly kind: string;
	readonly sentence: string;
	readonly gain_ms: number;
	readonly count: number;
	readonly spans: readonly number[];
}

export interface Failure {
	readonly type?: string;
	readonly message?: string;
	readonly level?: string;
	readonly file?: string;
	readonly line?: number;
	readonly time_ms?: number;
	readonly stack?: readonly Frame[];
}

export interface Frame {
	readonly function?: string;
	readonly class?: string;
	readonly file?: string;
	readonly line?: number;
}

export interface Span {
	readonly name: string;
	readonly id?: string;
	/* Index of the caller; -1 for the first span. */
	readonly parent: number;
	readonly component?: string;
	readonly layer: Layer;
	readonly start_ms: number;
	readonly duration_ms: number;
	readonly self_ms: number;
	/* The same for calls of the request that do the same. */
	readonly shape: number;
	readonly fold?: 'polls' | 'options';
	readonly statement?: string;
	readonly query?: string;
	readonly database_server?: string;
	readonly database_name?: string;
	readonly database?: string;
	readonly host?: string;
	readonly endpoint?: string;
	readonly port?: number;
	readonly status?: number;
	readonly async?: boolean;
	readonly failed?: boolean;
	readonly failures?: readonly Failure[];
	readonly stack?: readonly Frame[];
	readonly sent_headers?: Fields;
	readonly received_headers?: Fields;
}

/* A time in which nothing else held the request up but this span itself. */
export interface PathStep {
	readonly request?: number;
	readonly span: number;
	readonly from_ms: number;
	readonly to_ms: number;
}

export interface Details {
	readonly request: RequestRow;
	readonly findings?: readonly Finding[];
	readonly layers?: Readonly<Record<string, number>>;
	readonly spans?: readonly Span[];
	readonly query_string?: string;
	readonly application_group?: string;
	readonly session?: string;
	readonly bytes_in?: number;
	readonly bytes_out?: number;
	readonly request_headers?: Fields;
	readonly parameters?: Fields;
	readonly response_headers?: Fields;
	readonly custom_parameters?: Fields;
	readonly sums?: readonly (readonly unknown[])[];
	readonly averages?: readonly (readonly unknown[])[];
}

/* Without the request's document there are only `request` and `requests_of_trace`. */
export interface OneRequest extends Details {
	readonly requests_of_trace: number;
	readonly critical_path?: readonly PathStep[];
}

export interface RequestOfTrace extends Details {
	readonly start_ms?: number;
	readonly shift_ms?: number;
	readonly caller?: { readonly request: number; readonly span: number };
	readonly forked_from?: number;
	readonly repeated_spans?: readonly number[];
}

export interface Trace {
	readonly trace_id: string;
	readonly start_ms: number;
	readonly duration_ms: number;
	readonly requests: readonly RequestOfTrace[];
	readonly critical_path: readonly PathStep[];
	readonly left_out: number;
}

export interface Difference {
	readonly name: string;
	readonly detail?: string;
	readonly path?: string;
	readonly change: 'added' | 'removed' | 'count' | 'duration';
	readonly growth_ms: number;
	readonly count_before: number;
	readonly count_after: number;
	readonly self_before_ms: number;
	readonly self_after_ms: number;
	readonly total_before_ms: number;
	readonly total_after_ms: number;
}

export interface Comparison {
	readonly a: RequestRow;
	readonly b?: RequestRow;
	readonly typical?: { readonly requests: number; readonly duration_ms: number };
	readonly differences: readonly Difference[];
}

export interface Mark {
	readonly time_ms: number;
	readonly application: string;
	readonly text: string;
}

export interface Range {
	readonly from_ms: number;
	readonly to_ms: number;
	readonly minutes?: number;
}

export interface Durations {
	readonly p50_ms: number | null;
	readonly p95_ms: number | null;
	readonly p99_ms: number | null;
	readonly mean_ms: number | null;
	readonly longest_ms: number | null;
}

export interface Part {
	readonly name: string;
	readonly count: number;
	readonly total_ms: number;
}

export interface TopFigures extends Durations {
	readonly requests: number;
	readonly exact: boolean;
	readonly recorded: number;
	readonly monitored_share: number | null;
	readonly calls_per_minute: number;
	readonly failed: number;
	readonly error_share: number | null;
	readonly total_ms: number;
	readonly time_share: number;
	readonly queries_per_request: number | null;
	readonly calls_per_request: number | null;
	readonly database_ms: number | null;
	readonly external_ms: number | null;
	readonly cpu_ms: number | null;
	readonly apdex: number | null;
	readonly memory_bytes: number | null;
	readonly first_ms: number | null;
	readonly last_ms: number | null;
	readonly slowest: string | null;
}

/* A step of a row's curve: time, count, failed, p95, total. */
export type CurveStep = readonly [number, number, number, number | null, number];

export interface TopRow extends TopFigures {
	readonly application: string;
	readonly transaction: string;
	readonly curve?: readonly CurveStep[];
}

export interface ApplicationCount {
	readonly application: string;
	readonly requests: number;
	readonly monitored: number;
	readonly monitored_share: number;
}

export interface Top {
	readonly range: Range;
	readonly apdex_threshold_ms: number;
	readonly transactions: readonly TopRow[];
	readonly total: TopFigures;
	readonly applications: readonly ApplicationCount[];
	readonly suspended?: readonly unknown[];
	readonly step_ms?: number | null;
	readonly partial?: boolean;
	readonly more: boolean;
}

export interface Application extends TopFigures {
	readonly application: string;
	readonly points: readonly Point[];
}

export interface Applications {
	readonly range: Range;
	readonly step_ms: number;
	readonly apdex_threshold_ms: number;
	readonly applications: readonly Application[];
	readonly partial: boolean;
	readonly more: boolean;
}

/* Shorter than `to_ms`. */
export interface Bucket {
	readonly from_ms: number;
	readonly to_ms: number;
	readonly count: number;
}

export interface DurationBuckets extends Durations {
	readonly range: Range;
	readonly count: number;
	readonly buckets: readonly Bucket[];
	readonly partial: boolean;
}

/* A name that an application was asked under. */
export interface AskedHost {
	readonly application: string;
	readonly host: string;
	readonly requests: number;
}

export type LayerTimes = Readonly<Record<Layer, number>>;

export interface ProfileSums {
	readonly requests: number;
	readonly duration_ms: number;
	readonly cpu_ms: number;
	/* What code neither worked nor called; 0 where that cannot be known. */
	readonly waiting_ms: number;
	readonly layers: LayerTimes;
}

export interface ProfileRow {
	readonly name: string;
	readonly detail?: string;
	readonly layer: Layer;
	/* Index of the row of the calls around them; -1 for the first. */
	readonly parent: number;
	readonly count: number;
	readonly total_ms: number;
	readonly self_ms: number;
}

/* What a sample of the stored requests did, added up call by call. */
export interface Profile extends ProfileSums {
	readonly range: Range;
	readonly points: readonly (ProfileSums & { readonly time_ms: number })[];
	readonly rows: readonly ProfileRow[];
	readonly more: boolean;
}

export interface Group {
	readonly application: string;
	readonly count: number;
	readonly first_ms: number;
	readonly last_ms: number;
	readonly example: string;
	readonly transactions: readonly Part[];
	readonly transactions_count: number;
	readonly curve?: readonly CurveStep[];
}

export interface Timed extends Group, Durations {
	readonly failed: number;
	readonly error_share: number | null;
	readonly total_ms: number;
	readonly time_share: number;
}

export interface Statement extends Timed {
	readonly statement: string;
	readonly component: string;
	readonly server: string;
	readonly database: string;
	readonly callers: readonly Part[];
	readonly callers_count: number;
}

export interface CalledHost extends Timed {
	readonly host: string;
}

export interface FailureGroup extends Group {
	readonly key: string;
	readonly type: string;
	readonly place: string;
	readonly message: string;
	readonly level: string;
	readonly requests: number;
	readonly fatal: number;
}

export interface FoundKind {
	readonly application: string;
	readonly transaction: string;
	readonly kind: string;
	readonly requests: number;
	readonly gain_ms: number;
	readonly example: string;
	readonly example_gain_ms: number | null;
	readonly sentence: string;
}

export interface Point extends Durations {
	readonly time_ms: number;
	readonly count: number;
	readonly failed: number;
	readonly total_ms: number;
	readonly database_ms: number;
	readonly external_ms: number;
	readonly cpu_ms: number;
	readonly apdex: number | null;
}

export interface Curve {
	readonly range: Range;
	readonly step_ms: number;
	readonly points: readonly Point[];
	readonly partial?: boolean;
}

export type FigureKind = 'transaction' | 'statement' | 'host' | 'error';

export interface Candidate {
	readonly text: string;
	readonly help?: string;
}

export interface Completions {
	/* Bytes of the query that a candidate takes the place of. */
	readonly begin: number;
	readonly end: number;
	readonly candidates: readonly Candidate[];
}

export interface QueryMistake {
	readonly column: number;
	readonly text: string;
	readonly hint?: string;
}

export interface MistakeBody {
	readonly message: string;
	readonly hint?: string;
	readonly parameter?: string;
	readonly mistakes?: readonly QueryMistake[];
}

export interface DoctorCheck {
	readonly subject: string;
	readonly health: 'ok' | 'unknown' | 'warning' | 'problem';
	readonly what: string;
	readonly advice: string;
}

export interface DoctorReport {
	readonly time_ms: number;
	readonly superuser: boolean;
	readonly problems: number;
	readonly warnings: number;
	readonly checks: readonly DoctorCheck[];
}

export interface DoctorReports {
	/* What the collector's own user sees. */
	readonly collector: DoctorReport;
	/* The last one of root. */
	readonly root: DoctorReport | null;
}

/* What is not monitored any more, since its processes crashed; without an application: everything. */
export interface Suspension {
	readonly application: string;
	readonly instance: string;
	readonly since_ms: number;
	readonly reason: string;
}

export interface Status {
	readonly now_ms: number;
	readonly collector?: {
		readonly suspended?: readonly Suspension[];
		readonly started_ms?: number;
		readonly handshake_port?: number;
		readonly data_port?: number;
		readonly load_share?: number;
		readonly requests?: { readonly asked: number; readonly recorded: number; readonly left_out_for_load: number };
		readonly handshake?: { readonly p50_us: number; readonly p99_us: number; readonly measured: number; readonly failed: number };
	};
	readonly store: {
		readonly bytes: number;
		readonly most_bytes: number;
		readonly figure_bytes: number;
		readonly most_figure_bytes: number;
		readonly requests_put: number;
		readonly documents_kept: number;
		readonly documents_left_out: number;
		readonly requests_lost: number;
		readonly writing: boolean;
		readonly parts: readonly { readonly begun_ms: number; readonly requests: number; readonly documents: number }[];
		readonly damages: readonly string[];
	};
}
