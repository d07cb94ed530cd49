/*
 * Keyboard commands: those of every page, and those of the page that is open. The help lists them as
 * they are held here.
 */

export interface Command {
	/* As KeyboardEvent.key has it; `g o` for one after the other. */
	readonly keys: readonly string[];
	readonly text: string;
	/* Returns false where it does not want the key. */
	readonly run: (event: KeyboardEvent) => boolean | undefined;
}

const SEQUENCE_MS = 1200;

let everywhere: readonly Command[] = [];
let ofPage: readonly Command[] = [];
let before = '';
let beforeAt = 0;

export function setCommands(commands: readonly Command[]): void {
	everywhere = commands;
}

export function setPageCommands(commands: readonly Command[]): void {
	ofPage = commands;
}

export function commands(): { readonly everywhere: readonly Command[]; readonly ofPage: readonly Command[] } {
	return { everywhere, ofPage };
}

/* Where somebody writes, letters are letters. */
function isWriting(target: EventTarget | null): boolean {
	return (
		target instanceof HTMLElement &&
		(target.isContentEditable || target.matches('input:not([type=checkbox], [type=radio]), textarea, select'))
	);
}

/* Space presses what has the focus. */
function isPress(event: KeyboardEvent): boolean {
	return event.key === ' ' && event.target instanceof HTMLElement && event.target.matches('button, summary, input');
}

function handle(event: KeyboardEvent): void {
	if (isPress(event) || event.defaultPrevented || event.ctrlKey || event.metaKey || event.altKey || isWriting(event.target)) {
		return;
	}
	if (document.querySelector('dialog[open]')) {
		return;
	}
	const isSequence = event.timeStamp - beforeAt < SEQUENCE_MS && before !== '';
	const pressed = isSequence ? [`${before} ${event.key}`, event.key] : [event.key];
	before = event.key.length === 1 ? event.key : '';
	beforeAt = event.timeStamp;
	for (const key of pressed) {
		for (const command of [...ofPage, ...everywhere]) {
			if (command.keys.includes(key) && command.run(event) !== false) {
				event.preventDefault();
				before = '';
				return;
			}
		}
	}
}

export function startKeys(): void {
	document.addEventListener('keydown', handle);
}
