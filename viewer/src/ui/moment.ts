/* A field for a moment, to the second, in the viewer's zone. */
import { el } from './dom';

/* As `datetime-local` has it: without the zone's name. */
function localText(ms: number): string {
	return new Date(ms - new Date(ms).getTimezoneOffset() * 60000).toISOString().slice(0, 19);
}

export interface MomentField {
	readonly element: HTMLElement;
	readonly input: HTMLInputElement;
	/* Milliseconds since 1970; exactly what was given as long as nobody writes another. */
	readonly text: () => string;
}

export function momentField(label: string, ms: number, name = ''): MomentField {
	const input = el('input', { type: 'datetime-local', step: 1, value: localText(ms), required: true, ...(name ? { name } : {}) });
	// As the browser writes it, which leaves out seconds that are zero.
	const usual = input.value;
	return {
		element: el('label', { class: 'field' }, label, input),
		input,
		text: () => String(input.value === usual ? ms : Date.parse(input.value)),
	};
}
