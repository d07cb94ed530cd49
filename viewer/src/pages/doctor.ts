/* What is wrong between PHP and the store, and what to do; and how the collector is. */
import { api } from '../api/services';
import type { DoctorCheck, DoctorReport, Status } from '../api/types';
import { el, shortened, type Child } from '../ui/dom';
import { figures } from '../ui/figures';
import { ago, bytes, count, plural, share, timeElement } from '../ui/format';
import type { Page } from '../ui/page';
import { Panel, shared } from '../ui/panel';
import { command, emptyState } from '../ui/states';

const HEALTH: Readonly<Record<DoctorCheck['health'], readonly [string, string]>> = {
	problem: ['✕ problem', 'bad'],
	warning: ['! warning', 'warn'],
	unknown: ['? unknown', 'muted'],
	ok: ['✓ ok', 'good'],
};
const ORDER: readonly DoctorCheck['health'][] = ['problem', 'warning', 'unknown', 'ok'];

function checkRow(check: DoctorCheck): HTMLElement {
	const [text, level] = HEALTH[check.health];
	return el(
		'li',
		{ class: 'check' },
		el('span', { class: `check-health ${level}` }, text),
		el('b', { class: 'check-subject' }, check.subject),
		el('div', { class: 'check-what' }, el('p', {}, shortened(check.what, 2000)), check.advice && el('p', { class: 'check-advice' }, `→ ${shortened(check.advice, 2000)}`)),
	);
}

function reportPart(report: DoctorReport): Child {
	const sorted = [...report.checks].sort((one, other) => ORDER.indexOf(one.health) - ORDER.indexOf(other.health));
	const isWell = report.problems + report.warnings === 0;
	return [
		el(
			'p',
			{},
			el('b', { class: report.problems > 0 ? 'bad' : isWell ? 'good' : 'warn' }, isWell ? 'Nothing is wrong' : `${plural(report.problems, 'problem')}, ${plural(report.warnings, 'warning')}`),
			el('span', { class: 'muted' }, ' seen ', timeElement(report.time_ms, ago(report.time_ms))),
		),
		el('ul', { class: 'checks' }, sorted.map(checkRow)),
	];
}

function statusPart(status: Status): Child {
	const { collector, store } = status;
	const oldest = Math.min(...store.parts.map((part) => part.begun_ms));
	const handshake = collector?.handshake;
	const requests = collector?.requests;
	return [
		figures([
			{ name: 'Runs since', value: collector?.started_ms ? timeElement(collector.started_ms) : '–' },
			{ name: 'Requests asked', value: count(requests?.asked), help: 'Since the start, counted at their handshakes' },
			{ name: 'Recorded', value: count(requests?.recorded) },
			{ name: 'Left out for load', value: count(requests?.left_out_for_load), className: requests?.left_out_for_load ? 'warn' : '' },
			{ name: 'Load allows', value: share(collector?.load_share), help: 'The share of requests that the load allows to record' },
			{ name: 'Handshake p50', value: handshake?.measured ? `${(handshake.p50_us / 1000).toFixed(2)} ms` : '–' },
			{ name: 'Handshake p99', value: handshake?.measured ? `${(handshake.p99_us / 1000).toFixed(2)} ms` : '–' },
			{ name: 'Stored requests', value: count(store.parts.reduce((sum, part) => sum + part.requests, 0)) },
			{ name: 'Since', value: Number.isFinite(oldest) ? timeElement(oldest) : '–' },
			{ name: 'Requests’ room', value: `${bytes(store.bytes)} of ${bytes(store.most_bytes)}` },
			{ name: 'Figures’ room', value: `${bytes(store.figure_bytes)} of ${bytes(store.most_figure_bytes)}` },
			{ name: 'Lost', value: count(store.requests_lost), className: store.requests_lost > 0 ? 'bad' : '', help: 'Requests that could not be written' },
		]),
		!store.writing && el('p', { class: 'bad' }, 'The last attempt to write to the store failed.'),
		store.damages.length > 0 && el('ul', { class: 'bad' }, store.damages.slice(0, 20).map((each) => el('li', {}, shortened(each, 400)))),
	];
}

export function doctorPage(): Page {
	const status = new Panel('The collector');
	const own = new Panel('What the collector’s user can see', { what: 'The doctor’s report' });
	const root = new Panel('The last report of root', { what: 'The doctor’s report' });
	const show = () => {
		void status.fill(async (signal) => statusPart(await api.status(signal)));
		const asked = shared(() => api.doctor());
		void own.fill(async () => reportPart((await asked()).collector));
		void root.fill(async () => {
			const { root: report } = await asked();
			return report ? reportPart(report) : emptyState('Root has not looked yet.', 'Root sees more: whose process holds a port, other users’ limits and logs. Run ', command('sudo kaq doctor'), ' and ask anew.');
		});
	};
	return {
		element: el('div', { class: 'page' }, el('h1', {}, 'Doctor'), status.element, own.element, root.element),
		title: () => 'Doctor',
		show,
		end: () => {
			for (const panel of [status, own, root]) {
				panel.end();
			}
		},
	};
}
