/*
 * Where the focus goes when what had it is replaced: whoever uses the keyboard goes on where they were,
 * and a screen reader tells what is there now.
 */

function nameOf(element: HTMLElement): string {
	return element.matches('h1') ? '' : (element.getAttribute('aria-label') ?? element.textContent);
}

/* What stands in the place of what had the focus gets it. */
export function keepingFocus(parent: Element, change: () => void): void {
	const focused = document.activeElement;
	if (!(focused instanceof HTMLElement) || focused === parent || !parent.contains(focused)) {
		change();
		return;
	}
	const name = nameOf(focused);
	const alike = () => [...parent.querySelectorAll<HTMLElement>(focused.tagName)].filter((each) => nameOf(each) === name);
	const at = alike().indexOf(focused);
	const href = focused.getAttribute('href');
	change();
	if (document.activeElement !== focused) {
		const now = alike();
		const next = (href === null ? undefined : now.find((each) => each.getAttribute('href') === href)) ?? now[at] ?? now[0];
		if (next) {
			focusOn(next);
		}
	}
}

/* Of what is no button, link or field, either. */
export function focusOn(element: HTMLElement): void {
	if (element.tabIndex < 0) {
		element.tabIndex = -1;
	}
	element.focus({ preventScroll: true });
}

/* Gets the focus where it was within and `change` has taken it away without another to get it. */
export function focusIfLost(place: HTMLElement, change: () => void): void {
	const wasWithin = place.contains(document.activeElement);
	change();
	if (wasWithin && !place.contains(document.activeElement)) {
		focusOn(place);
	}
}

let watching: MutationObserver | undefined;

/* A new page's heading gets the focus, as soon as it is there, unless somebody went on meanwhile. */
export function focusHeading(main: HTMLElement): void {
	watching?.disconnect();
	const heading = main.querySelector('h1');
	if (heading) {
		focusOn(heading);
		return;
	}
	focusOn(main);
	watching = new MutationObserver(() => {
		const isLeft = document.activeElement !== main;
		if (isLeft || main.querySelector('h1')) {
			watching?.disconnect();
		}
		if (!isLeft) {
			const found = main.querySelector('h1');
			if (found) {
				focusOn(found);
			}
		}
	});
	watching.observe(main, { childList: true, subtree: true });
}
