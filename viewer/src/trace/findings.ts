/* What is to be said about the request: the verdict first. A click shows the spans that it rests on. */
import { el, shortened, type Child } from '../ui/dom';
import { duration, plural, share } from '../ui/format';
import type { FindingOfPart } from './model';
import type { ViewState } from './state';

const AT_FIRST = 4;

function gain(finding: FindingOfPart): Child {
	if (finding.gain_ms <= 0) {
		return el('span', { class: 'verdict-gain' });
	}
	// Calls at the same time may have taken longer together than the request did.
	const part = Math.min(1, finding.gain_ms / Math.max(1, finding.part.row.duration_ms));
	return el(
		'span',
		{ class: 'verdict-gain', title: 'What the request would be faster by, at most' },
		el('b', {}, duration(finding.gain_ms)),
		el('span', { class: 'muted small' }, ` to gain, ${share(part)}`),
		el('i', { class: 'gain-bar', style: { '--part': `${part * 100}%` }, 'aria-hidden': 'true' }),
	);
}

/* `onShow` brings the waterfall to sight. */
export function findingsElement(state: ViewState, onShow: () => void): HTMLElement {
	const { model } = state;
	const { findings } = model;
	if (findings.length === 0) {
		return el('p', { class: 'muted' }, 'Nothing stands out: no repeated statement, no slow or failed call.');
	}
	const buttons = findings.map((finding, i) => {
		const of = `finding ${i}`;
		const show = () => {
			if (state.marksOf === of) {
				state.unmark();
				return;
			}
			state.point(of, finding.nodes);
			onShow();
		};
		return el(
			'button',
			{ type: 'button', class: i === 0 ? 'verdict is-first' : 'verdict', 'aria-pressed': 'false', title: finding.nodes.length > 0 ? 'Show the calls that this rests on' : undefined, on: { click: show } },
			el('span', { class: 'verdict-text', dir: 'auto' }, model.isTrace && el('span', { class: 'service' }, shortened(finding.part.row.application, 60)), shortened(finding.sentence, 400)),
			gain(finding),
			el('span', { class: 'muted small verdict-where' }, finding.nodes.length > 0 ? `show ${plural(finding.nodes.length, 'call')}` : ''),
		);
	});
	state.on((change) => {
		if (change === 'marks') {
			buttons.forEach((button, i) => button.setAttribute('aria-pressed', String(state.marksOf === `finding ${i}`)));
		}
	});
	const rest = buttons.slice(AT_FIRST);
	return el(
		'section',
		{ class: 'verdicts', 'aria-label': 'Findings' },
		buttons.slice(0, AT_FIRST),
		rest.length > 0 && el('details', {}, el('summary', {}, plural(rest.length, 'more finding')), rest),
	);
}
