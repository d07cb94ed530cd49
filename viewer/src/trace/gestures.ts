/*
 * Wheel and fingers on a drawing whose width is a range, such as of time. What lies below each of two
 * fingers stays below it, so that they zoom and move at once.
 */
import type { Zoom } from './scale';

/* Fingers that are nearer, or above each other, are taken for being as far from each other. */
const CLOSEST = 24;
const STRONGEST_WHEEL = 400;

export interface Ranged {
	readonly zoom: Zoom;
	/* Where the range is drawn, in pixels from the element's left edge. */
	readonly area: { readonly left: number; readonly width: number };
	zoomTo(change: (zoom: Zoom) => void): void;
	/* There are two fingers: what one of them did is over. */
	beginPinch(): void;
}

interface Fingers {
	readonly left: number;
	readonly right: number;
}

/* In pixels from where the range begins. */
function fingersOf(event: TouchEvent, edge: number): Fingers | undefined {
	const [one, other] = event.touches;
	if (!one || !other || event.touches.length > 2) {
		return undefined;
	}
	const apart = Math.max(CLOSEST, Math.hypot(one.clientX - other.clientX, one.clientY - other.clientY));
	const middle = (one.clientX + other.clientX) / 2 - edge;
	return { left: middle - apart / 2, right: middle + apart / 2 };
}

function followFingers(element: HTMLElement, ranged: Ranged): void {
	const fingers = (event: TouchEvent) => fingersOf(event, element.getBoundingClientRect().left + ranged.area.left);
	let held: { readonly from: number; readonly to: number } | undefined;
	const begin = (event: TouchEvent) => {
		const at = fingers(event);
		held = undefined;
		if (at) {
			const { from, to } = ranged.zoom;
			const perPixel = (to - from) / ranged.area.width;
			held = { from: from + at.left * perPixel, to: from + at.right * perPixel };
			ranged.beginPinch();
			event.preventDefault();
		}
	};
	const move = (event: TouchEvent) => {
		const at = fingers(event);
		if (at && held) {
			const perPixel = (held.to - held.from) / (at.right - at.left);
			const from = held.from - at.left * perPixel;
			ranged.zoomTo((zoom) => zoom.set(from, from + ranged.area.width * perPixel));
			event.preventDefault();
		}
	};
	element.addEventListener('touchstart', begin, { passive: false });
	element.addEventListener('touchmove', move, { passive: false });
	element.addEventListener('touchend', begin, { passive: false });
	element.addEventListener('touchcancel', () => (held = undefined));
}

function turn(event: WheelEvent, element: HTMLElement, ranged: Ranged): void {
	const { left, width } = ranged.area;
	const across = event.shiftKey && event.deltaX === 0 ? event.deltaY : event.deltaX;
	if (event.ctrlKey || event.metaKey) {
		event.preventDefault();
		const x = event.clientX - element.getBoundingClientRect().left - left;
		const { from, to } = ranged.zoom;
		const factor = 1.0015 ** Math.max(-STRONGEST_WHEEL, Math.min(STRONGEST_WHEEL, event.deltaY));
		ranged.zoomTo((zoom) => zoom.by(factor, from + (x / width) * (to - from)));
	} else if (Math.abs(across) > Math.abs(event.deltaY) || event.shiftKey) {
		event.preventDefault();
		ranged.zoomTo((zoom) => zoom.move((across / width) * (zoom.to - zoom.from)));
	}
}

export function followGestures(element: HTMLElement, ranged: Ranged): void {
	element.addEventListener('wheel', (event) => turn(event, element, ranged), { passive: false });
	followFingers(element, ranged);
}
