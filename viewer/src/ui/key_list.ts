/* Keyboard commands as a list. */
import { el, type Child } from './dom';
import type { Command } from './keys';

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

export function keyList(title: string, list: readonly Command[]): Child {
	return (
		list.length > 0 && [
			el('h3', {}, title),
			el('dl', { class: 'keys' }, list.map((each) => [el('dt', {}, keyCaps(each)), el('dd', {}, each.text)])),
		]
	);
}
