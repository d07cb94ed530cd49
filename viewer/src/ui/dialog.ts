/* A box over the page, which Escape and its button close. */
import { el, type Child } from './dom';

let dialogs = 0;

export function openDialog(title: string, ...children: readonly Child[]): HTMLDialogElement {
	const id = `dialog-${++dialogs}`;
	const dialog: HTMLDialogElement = el(
		'dialog',
		{ 'aria-labelledby': id },
		el(
			'header',
			{ class: 'dialog-head' },
			el('h2', { id }, title),
			el('button', { type: 'button', class: 'plain', 'aria-label': 'Close', on: { click: () => dialog.close() } }, '✕'),
		),
		el('div', { class: 'dialog-body' }, children),
	);
	dialog.addEventListener('click', (event) => {
		if (event.target === dialog) {
			dialog.close();
		}
	});
	dialog.addEventListener('close', () => dialog.remove());
	document.body.append(dialog);
	dialog.showModal();
	return dialog;
}
