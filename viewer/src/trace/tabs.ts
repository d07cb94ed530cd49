/* Parts of a page of which one is shown; each is made when it is first opened. */
import { el, replace, type Child } from '../ui/dom';

export interface Tab {
	readonly name: string;
	readonly title: string;
	/* Behind the title. */
	readonly count?: number;
	readonly content: () => Child;
}

let sets = 0;

export class Tabs {
	readonly element: HTMLElement;
	private readonly buttons: HTMLButtonElement[];
	private readonly panels: HTMLElement[];
	private readonly made = new Set<number>();
	private open = -1;

	constructor(
		label: string,
		private readonly tabs: readonly Tab[],
		private readonly onOpen: (name: string) => void,
	) {
		const id = `tabs-${++sets}`;
		this.panels = tabs.map((_, i) => el('div', { role: 'tabpanel', id: `${id}-${i}`, 'aria-labelledby': `${id}-tab-${i}`, hidden: true, class: 'tab-panel' }));
		this.buttons = tabs.map((tab, i) =>
			el(
				'button',
				{ type: 'button', role: 'tab', id: `${id}-tab-${i}`, 'aria-controls': `${id}-${i}`, class: 'tab', on: { click: () => this.choose(i), keydown: (event) => this.key(event, i) } },
				tab.title,
				tab.count !== undefined && tab.count > 0 && el('span', { class: 'tab-count' }, String(tab.count)),
			),
		);
		this.element = el('div', { class: 'tabs' }, el('div', { class: 'tab-list', role: 'tablist', 'aria-label': label }, this.buttons), this.panels);
	}

	get current(): string {
		return this.tabs[this.open]?.name ?? '';
	}

	show(name: string): void {
		const wanted = this.tabs.findIndex((tab) => tab.name === name);
		this.turn(Math.max(0, wanted));
	}

	private choose(index: number): void {
		this.turn(index);
		this.onOpen(this.current);
	}

	private turn(index: number): void {
		this.open = index;
		const panel = this.panels[index];
		if (panel && !this.made.has(index)) {
			this.made.add(index);
			replace(panel, this.tabs[index]?.content());
		}
		this.buttons.forEach((button, i) => {
			button.setAttribute('aria-selected', String(i === index));
			button.tabIndex = i === index ? 0 : -1;
		});
		this.panels.forEach((each, i) => (each.hidden = i !== index));
	}

	private key(event: KeyboardEvent, index: number): void {
		const moves: Readonly<Record<string, number>> = { ArrowRight: index + 1, ArrowLeft: index - 1, Home: 0, End: this.tabs.length - 1 };
		const to = moves[event.key];
		if (to !== undefined) {
			const next = (to + this.tabs.length) % this.tabs.length;
			this.choose(next);
			this.buttons[next]?.focus();
			event.preventDefault();
		}
	}
}
