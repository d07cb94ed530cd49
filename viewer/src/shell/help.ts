/* The boxes that `?` and the foot of the page open. */
import { openDialog } from '../ui/dialog';
import { el } from '../ui/dom';
import { keyList } from '../ui/key_list';
import { commands } from '../ui/keys';

interface Licence {
	readonly name: string;
	readonly version: string;
	readonly licence: string;
	readonly text: string;
}

/* Set by build.mjs. */
declare const KAQ_LICENCES: readonly Licence[];

export function openHelp(): void {
	const { everywhere, ofPage } = commands();
	openDialog('Keys', keyList('On this page', ofPage), keyList('Everywhere', everywhere));
}

export function openAbout(): void {
	openDialog(
		'About',
		el('p', {}, 'These pages are part of the kaq collector and show what it answers at /api/v1. They ask nobody else.'),
		el('h3', {}, 'Libraries in these pages'),
		KAQ_LICENCES.map((each) =>
			el(
				'details',
				{},
				el('summary', {}, `${each.name} ${each.version}, ${each.licence}`),
				el('pre', { class: 'licence', tabindex: 0 }, each.text),
			),
		),
	);
}
