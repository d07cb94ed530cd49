/* The time that is looked at: some last hours, or from one moment to another. */
import { changed, go, here, timeOf, USUAL_RANGE, type Address } from '../state/address';
import { openDialog } from '../ui/dialog';
import { el, replace, shortened } from '../ui/dom';
import { exactTime, time } from '../ui/format';
import { momentField } from '../ui/moment';

const PRESETS: readonly (readonly [string, string])[] = [
	['15m', 'Last 15 minutes'],
	['1h', 'Last hour'],
	['3h', 'Last 3 hours'],
	['12h', 'Last 12 hours'],
	['24h', 'Last 24 hours'],
	['7d', 'Last 7 days'],
	['30d', 'Last 30 days'],
	['400d', 'Last 400 days'],
];
const CUSTOM = 'custom';

/* What is no time is named as it stands in the address. */
function momentText(text: string): string {
	const ms = timeOf(text, Date.now());
	return Number.isNaN(ms) ? `"${shortened(text, 20)}"` : time(ms);
}

export function rangeText(address: Address): string {
	const preset = PRESETS.find(([from]) => from === address.from && !address.to);
	if (preset) {
		return preset[1];
	}
	return `${momentText(address.from)} to ${address.to ? momentText(address.to) : 'now'}`;
}

/* Undefined where a moment cannot be read. */
function exactRange(address: Address): string | undefined {
	const now = Date.now();
	const moments = [timeOf(address.from, now), timeOf(address.to, now)];
	return moments.some(Number.isNaN) ? undefined : moments.map(exactTime).join(' to ');
}

function askForRange(): void {
	const now = Date.now();
	const address = here();
	const from = momentField('From', timeOf(address.from, now) || now - 3600000);
	const to = momentField('To', timeOf(address.to, now) || now);
	const check = () => to.input.setCustomValidity(to.input.value > from.input.value ? '' : 'It ends before it begins.');
	const form = el(
		'form',
		{
			class: 'stack',
			on: {
				input: check,
				submit: (event) => {
					event.preventDefault();
					dialog.close();
					go(changed(here(), { from: from.text(), to: to.text() }));
				},
			},
		},
		from.element,
		to.element,
		el('button', { type: 'submit', class: 'primary' }, 'Show'),
	);
	const dialog = openDialog('Time range', form);
}

function choose(value: string): void {
	if (value === CUSTOM) {
		askForRange();
	} else if (value) {
		go(changed(here(), { from: value, to: '' }));
	}
}

/* Moves the range by half of its length; by 1 to later, by -1 to earlier. */
export function moveRange(direction: 1 | -1): void {
	const now = Date.now();
	const [from, to] = [timeOf(here().from, now), timeOf(here().to, now)];
	const shift = ((to - from) / 2) * direction;
	if (Number.isFinite(shift)) {
		go(changed(here(), { from: String(Math.round(from + shift)), to: String(Math.round(to + shift)) }));
	}
}

export function rangeControl(): { readonly element: HTMLElement; update(address: Address): void } {
	// The last hour is another one whenever it is looked at.
	const name = () => {
		const exact = exactRange(here());
		if (exact === undefined) {
			select.removeAttribute('title');
		} else {
			select.title = exact;
		}
	};
	const select = el('select', {
		'aria-label': 'Time range',
		on: {
			pointerenter: name,
			change: () => {
				const { value } = select;
				update(here());
				choose(value);
			},
		},
	});
	const update = (address: Address) => {
		const current = address.to || !PRESETS.some(([from]) => from === address.from);
		replace(
			select,
			current && el('option', { value: '' }, rangeText(address)),
			PRESETS.map(([from, text]) => el('option', { value: from }, text)),
			el('option', { value: CUSTOM }, 'From … to …'),
		);
		select.value = current ? '' : address.from || USUAL_RANGE;
		name();
	};
	const shift = (label: string, text: string, direction: 1 | -1) =>
		el('button', { type: 'button', 'aria-label': label, title: label, on: { click: () => moveRange(direction) } }, text);
	return { element: el('div', { class: 'joined' }, shift('Earlier', '‹', -1), select, shift('Later', '›', 1)), update };
}
