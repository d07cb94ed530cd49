/* The pages that the collector serves: shows the one that the address names. */
import { PAGE_PROGRAMS } from './pages/index';
import { startShell, type Shell } from './shell/shell';
import { followLinks, here, hrefOf, elsewhere, onAddress, type Address } from './state/address';
import { beginAtTop, startPlaces } from './state/place';
import { el, replace } from './ui/dom';
import { focusHeading } from './ui/focus';
import { setPageCommands, startKeys } from './ui/keys';
import type { Page } from './ui/page';
import { errorState, emptyState } from './ui/states';
import { startTheme } from './ui/theme';

function noSuchPage(address: Address): Page {
	const name = typeof address.page === 'string' ? address.page : address.page.unknown;
	const way = el('a', { href: hrefOf(elsewhere(address, 'overview')) }, 'To the overview');
	return {
		element: emptyState(`There is no page "${name.slice(0, 60)}".`, way),
		title: () => 'No such page',
		show: () => undefined,
	};
}

function begin(address: Address): Page {
	const program = typeof address.page === 'string' ? PAGE_PROGRAMS[address.page] : undefined;
	return program ? program() : noSuchPage(address);
}

class App {
	private page: Page | undefined;
	private shown = '';
	private readonly shell: Shell;

	constructor() {
		this.shell = startShell(() => this.show(here()));
		onAddress((address) => this.show(address));
		this.show(here());
	}

	private show(address: Address): void {
		const name = JSON.stringify(address.page);
		try {
			this.shell.update(address);
			const isOther = this.page !== undefined && name !== this.shown;
			if (isOther || !this.page) {
				this.page?.end?.();
				this.shown = name;
				this.page = begin(address);
				replace(this.shell.main, this.page.element);
				setPageCommands(this.page.commands ?? []);
				beginAtTop();
			}
			document.title = `${this.page.title(address)} – kaq`;
			this.page.show(address);
			if (isOther) {
				focusHeading(this.shell.main);
			}
		} catch (error) {
			console.error(error);
			replace(this.shell.main, errorState('This page', error));
		}
	}
}

startTheme();
startKeys();
followLinks();
export const app = new App();
startPlaces();
