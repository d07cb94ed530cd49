/*
 * How far each page of the browser's history was scrolled. A page's content comes after it, so the
 * browser by itself would come back to its top.
 */

const SAVE_MS = 100;
const PATIENCE_MS = 5000;
/* What people scroll with. */
const MOVES = ['wheel', 'touchmove', 'keydown', 'pointerdown'] as const;

interface Left {
	readonly y?: number;
}

let restoring: (() => void) | undefined;

/* For the browser's way back to what is in sight now. */
export function savePlace(): void {
	if (!restoring) {
		history.replaceState({ y: scrollY }, '');
	}
}

/* Scrolls there as soon as there is as much; whoever scrolls meanwhile is left where they are. */
function restore(y: number): void {
	restoring?.();
	if (y <= 0) {
		return;
	}
	const sizes = new ResizeObserver(() => {
		if (document.documentElement.scrollHeight >= y + innerHeight) {
			end();
		}
	});
	const stop = () => {
		sizes.disconnect();
		clearTimeout(timer);
		restoring = undefined;
		for (const type of MOVES) {
			removeEventListener(type, stop);
		}
	};
	const end = () => {
		stop();
		scrollTo(0, y);
	};
	const timer = setTimeout(end, PATIENCE_MS);
	restoring = stop;
	for (const type of MOVES) {
		addEventListener(type, stop);
	}
	sizes.observe(document.body);
}

/* A new page begins at its top. */
export function beginAtTop(): void {
	restoring?.();
	scrollTo(0, 0);
}

/* REQUIRES: whoever shows another page on the browser's way back listens before. */
export function startPlaces(): void {
	history.scrollRestoration = 'manual';
	let timer = 0;
	addEventListener('scroll', () => {
		clearTimeout(timer);
		timer = window.setTimeout(savePlace, SAVE_MS);
	});
	addEventListener('pagehide', savePlace);
	addEventListener('popstate', (event) => {
		clearTimeout(timer);
		restore((event.state as Left | null)?.y ?? 0);
	});
	restore((history.state as Left | null)?.y ?? 0);
}
