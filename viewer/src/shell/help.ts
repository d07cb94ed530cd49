/* The boxes that `?` and the foot of the page open. */
import { openDialog } from '../ui/dialog';
import { el, type Child } from '../ui/dom';
import { commands, type Command } from '../ui/keys';

interface Licence {
	readonly name: string;
	readonly version: string;
	readonly licence: string;
	readonly text: string;
}

/* Set by build.mjs. */
declare const KAQ_LICENCES: readonly Licence[];

const NAMES: Readonly<Record<string, string>> = {
	ArrowUp: '↑',
	ArrowDown: '↓',
	ArrowLeft: '←',
	ArrowRight: '→',
	Escape: 'Esc',
	' ': 'Space',
};

function keyCaps(command: Command): Child {
	return command.keys.map((key, i) => [
		i > 0 && ' or ',
		key === ' ' ? el('kbd', {}, 'Space') : key.split(' ').map((part) => [el('kbd', {}, NAMES[part] ?? part), ' ']),
	]);
}

function commandList(title: string, list: readonly Command[]): Child {
	return (
		list.length > 0 && [
			el('h3', {}, title),
			el('dl', { class: 'keys' }, list.map((each) => [el('dt', {}, keyCaps(each)), el('dd', {}, each.text)])),
		]
	);
}

export function openHelp(): void {
	const { everywhere, ofPage } = commands();
	openDialog('Keys', commandList('On this page', ofPage), commandList('Everywhere', everywhere));
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
