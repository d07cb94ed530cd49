/* How every application is, and what would gain most. */
import { api } from '../api/services';
import type { Application, Applications, FoundKind, Mark, Suspension, TopFigures } from '../api/types';
import { type Address } from '../state/address';
import { el, replace, shortened, type Child } from '../ui/dom';
import { apdexLevel, errorLevel, figures, type Figure } from '../ui/figures';
import { count, duration, perMinute, plural, score, share, shortCount, timeElement } from '../ui/format';
import { lines } from '../ui/lines';
import { pageLink, requestLink, transactionLink } from '../ui/link';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';
import { stepsOf } from '../ui/series';
import { command, emptyState } from '../ui/states';
import { marksOf } from './marks';
import { exactly, FINDING_TEXTS, narrowedBy } from './scope';

const FINDINGS = 5;
/* With charts; the others are named. */
const APPLICATIONS = 12;

/* Without a handshake to count them there are as many as were recorded. */
export function isEstimate(row: TopFigures): boolean {
	return !row.exact && row.requests !== row.recorded;
}

function rate(application: Application): string {
	return `${isEstimate(application) ? '~ ' : ''}${perMinute(application.calls_per_minute)}`;
}

function figuresOf(application: Application, threshold: number): Figure[] {
	const monitored = application.monitored_share;
	return [
		{ name: 'Requests', value: count(application.requests) },
		{ name: 'Rate', value: rate(application), help: isEstimate(application) ? 'Estimated from what was recorded' : 'Counted' },
		...(monitored !== null && monitored < 0.9995
			? [{ name: 'Recorded', value: share(monitored), help: 'Everything but the rate rests on these' }]
			: []),
		{ name: 'p50', value: duration(application.p50_ms), help: 'Half of the requests took no longer' },
		{ name: 'p95', value: duration(application.p95_ms), help: '95 of 100 requests took no longer' },
		{ name: 'p99', value: duration(application.p99_ms), help: '99 of 100 requests took no longer' },
		{ name: 'Errors', value: share(application.error_share), className: errorLevel(application.error_share) },
		{
			name: 'Apdex',
			value: score(application.apdex),
			className: apdexLevel(application.apdex),
			help: `Satisfaction from 0 to 1: up to ${duration(threshold)} count as 1, up to four times of it as a half`,
		},
	];
}

function charts(application: Application, all: Applications, marks: readonly Mark[]): HTMLElement {
	const steps = stepsOf(all.range, all.step_ms, application.points);
	const own = marks.filter((mark) => mark.application === '' || mark.application === application.application);
	const common = { times: steps.times, step: all.step_ms, range: steps.range, marks: own };
	const name = application.application;
	return el(
		'div',
		{ class: 'charts' },
		lines({
			...common,
			label: `Requests per minute of ${name}`,
			format: (value) => shortCount(value),
			lines: [{ name: 'Recorded requests/min', values: steps.rates(), colour: '--line-1' }],
		}),
		lines({
			...common,
			label: `Durations of ${name}`,
			format: duration,
			lines: [
				{ name: 'p50', values: steps.values((point) => point.p50_ms), colour: '--line-1' },
				{ name: 'p95', values: steps.values((point) => point.p95_ms), colour: '--line-2' },
				{ name: 'p99', values: steps.values((point) => point.p99_ms), colour: '--line-3' },
			],
		}),
		lines({
			...common,
			label: `Share of failed requests of ${name}`,
			format: share,
			least: 0.01,
			most: 1,
			lines: [{ name: 'Errors', values: steps.values((point) => (point.count > 0 ? point.failed / point.count : null)), colour: '--bad' }],
		}),
		lines({
			...common,
			label: `Apdex of ${name}`,
			format: score,
			least: 1,
			most: 1.05,
			lines: [{ name: 'Apdex', values: steps.values((point) => point.apdex), colour: '--good' }],
		}),
	);
}

function applicationPart(application: Application, all: Applications, marks: readonly Mark[]): HTMLElement {
	const name = application.application;
	const title = pageLink('transactions', {}, { app: name }, name || '(no name)');
	title.className = 'application-name';
	return el(
		'article',
		{ class: 'application', 'aria-label': name },
		el('div', { class: 'application-head' }, el('h3', {}, title), figures(figuresOf(application, all.apdex_threshold_ms))),
		application.recorded > 0 ? charts(application, all, marks) : el('p', { class: 'muted' }, 'None of its requests was recorded.'),
	);
}

function nothingYet(address: Address): HTMLElement {
	return address.app || address.host || address.q
		? emptyState('No request in this time fulfils the filters.', 'Take a longer time, or all applications and hosts.')
		: emptyState(
				'No request was seen in this time.',
				'Take a longer time; or, if there never was one, ',
				command('kaq doctor'),
				' says what is missing between PHP and the collector. ',
				pageLink('doctor', {}, {}, 'What the collector itself sees'),
			);
}

function findingRow(finding: FoundKind): HTMLElement {
	return el(
		'li',
		{ class: 'finding', 'data-row': true },
		el(
			'div',
			{ class: 'finding-gain' },
			el('b', {}, finding.gain_ms > 0 ? duration(finding.gain_ms) : '–'),
			el('span', { class: 'muted small' }, finding.gain_ms > 0 ? 'to gain' : 'no time to gain'),
		),
		el(
			'div',
			{ class: 'finding-what' },
			el('p', { class: 'finding-sentence' }, finding.example ? requestLink(finding.example, finding.sentence) : 'No request of which this was said is stored any more.'),
			el(
				'p',
				{ class: 'muted small finding-where' },
				`${FINDING_TEXTS[finding.kind] ?? finding.kind} in ${plural(finding.requests, 'request')} of ${finding.application} `,
				transactionLink(finding.application, finding.transaction),
			),
		),
	);
}

export function findingsPanel(title: string): { readonly panel: Panel; readonly show: (address: Address, txn?: string) => void } {
	const panel = new Panel(title, { what: 'What would gain most' });
	const show = (address: Address, txn?: string) =>
		void panel.fill(async (signal) => {
			const scope = { ...narrowedBy(address), ...(txn === undefined ? {} : { txn: exactly(txn) }) };
			const found = await api.findings({ ...scope, limit: FINDINGS }, signal);
			return [
				found.partial && el('p', { class: 'muted small' }, 'Of the newest requests that are stored.'),
				found.findings.length === 0
					? emptyState('Nothing was found that would make these requests faster.')
					: el('ol', { class: 'findings' }, found.findings.map(findingRow)),
			];
		});
	return { panel, show };
}

/* Requests run on, but nobody sees them: that has to be said where one looks first. */
function suspensionNotice({ application, since_ms: since, reason }: Suspension): HTMLElement {
	return el(
		'p',
		{ class: 'notice', role: 'alert' },
		el('b', {}, `${shortened(application, 200) || 'Every application'} is not monitored since `, timeElement(since)),
		`: ${shortened(reason, 500)}. `,
		command('kaq resume'),
		' brings it back.',
	);
}

async function suspensionNotices(): Promise<HTMLElement[]> {
	try {
		return ((await api.status()).collector?.suspended ?? []).map(suspensionNotice);
	} catch {
		// What is asked beside it says what is wrong.
		return [];
	}
}

export function overviewPage(): Page {
	const notices = el('div', { class: 'notices' });
	const findings = findingsPanel('What would gain most');
	const applications = new Panel('Applications', { what: 'The applications' });
	const content = async (address: Address, signal: AbortSignal): Promise<Child> => {
		const [all, marks] = await Promise.all([
			api.applications(narrowedBy(address), signal),
			marksOf(address, signal),
		]);
		const shown = all.applications.slice(0, APPLICATIONS);
		const others = all.applications.slice(APPLICATIONS);
		return all.applications.length === 0
			? nothingYet(address)
			: [
					shown.map((each) => applicationPart(each, all, marks)),
					others.length > 0 &&
						el(
							'p',
							{},
							'Also: ',
							others.map((each, i) => [i > 0 && ', ', pageLink('overview', {}, { app: each.application }, each.application)]),
						),
				];
	};
	return {
		element: el('div', { class: 'page' }, el('h1', { class: 'unseen' }, 'Overview'), notices, findings.panel.element, applications.element),
		title: (address) => address.app || 'Overview',
		show: (address) => {
			findings.show(address);
			void suspensionNotices().then((found) => replace(notices, found));
			void applications.fill((signal) => content(address, signal));
		},
		end: () => {
			findings.panel.end();
			applications.end();
		},
	};
}
