/* What a page is to the program around it. */
import type { Address } from '../state/address';
import type { Command } from './keys';

export interface Page {
	readonly element: HTMLElement;
	readonly commands?: readonly Command[];
	/* Shows what the address says; called at the begin and whenever the address has changed. */
	show(address: Address): void;
	/* Of the browser's window; what is open is said in front of the program's name. */
	title(address: Address): string;
	end?(): void;
}

export type BeginPage = () => Page;
