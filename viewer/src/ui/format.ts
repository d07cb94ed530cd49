/* Numbers with their units, and times in the viewer's zone, as texts. */
import { el } from './dom';

const grouped = new Intl.NumberFormat('en-US', { maximumFractionDigits: 0 });

export const NOTHING = '–';

type Figure = number | null | undefined;

function isKnown(value: Figure): value is number {
	return value !== null && value !== undefined && Number.isFinite(value);
}

/* With three digits that count, and no zeros behind the point that mean nothing. */
function digits(value: number): string {
	const size = Math.abs(value);
	const places = size >= 100 ? 0 : size >= 10 ? 1 : 2;
	return String(Number(value.toFixed(places)));
}

export function count(value: Figure): string {
	return isKnown(value) ? grouped.format(value) : NOTHING;
}

const THOUSANDS: readonly (readonly [number, string])[] = [
	[1e9, ' G'],
	[1e6, ' M'],
	[1e4, ' k'],
];

/* `12.3 k`, where there is little room. */
export function shortCount(value: Figure): string {
	if (!isKnown(value)) {
		return NOTHING;
	}
	for (const [size, unit] of THOUSANDS) {
		if (Math.abs(value) >= size) {
			return digits(value / (size === 1e4 ? 1e3 : size)) + unit;
		}
	}
	return Math.abs(value) >= 100 ? grouped.format(value) : digits(value);
}

/* `480 ms`, `1.4 s`, `2 min 5 s`, `3 h 20 min`. */
export function duration(ms: Figure): string {
	if (!isKnown(ms)) {
		return NOTHING;
	}
	const size = Math.abs(ms);
	if (size < 999.5) {
		return `${size < 10 ? String(Number(ms.toFixed(1))) : ms.toFixed(0)} ms`;
	}
	if (size < 59950) {
		return `${digits(ms / 1000)} s`;
	}
	const seconds = Math.round(size / 1000);
	const sign = ms < 0 ? '-' : '';
	if (seconds < 3600) {
		return `${sign}${Math.floor(seconds / 60)} min${seconds % 60 ? ` ${seconds % 60} s` : ''}`;
	}
	const minutes = Math.round(seconds / 60);
	if (minutes < 48 * 60) {
		return `${sign}${Math.floor(minutes / 60)} h${minutes % 60 ? ` ${minutes % 60} min` : ''}`;
	}
	return `${sign}${digits(minutes / 1440)} d`;
}

export function bytes(size: Figure): string {
	if (!isKnown(size)) {
		return NOTHING;
	}
	let [value, unit] = [size, 'B'];
	for (const larger of ['KiB', 'MiB', 'GiB', 'TiB']) {
		if (Math.abs(value) < 1024) {
			break;
		}
		[value, unit] = [value / 1024, larger];
	}
	return `${digits(value)} ${unit}`;
}

/* Of a share from 0 to 1: `0.3 %`. */
export function share(part: Figure): string {
	if (!isKnown(part)) {
		return NOTHING;
	}
	return part > 0 && part < 0.0001 ? '< 0.01 %' : `${digits(part * 100)} %`;
}

export function perMinute(value: Figure): string {
	return isKnown(value) ? `${shortCount(value)}/min` : NOTHING;
}

export function score(value: Figure): string {
	return isKnown(value) ? value.toFixed(2) : NOTHING;
}

/* `61 ×` */
export function times(value: number): string {
	return `${count(value)} ×`;
}

export function plural(value: number, one: string, many = `${one}s`): string {
	return `${count(value)} ${value === 1 ? one : many}`;
}

const clock = new Intl.DateTimeFormat('en-GB', { hour: '2-digit', minute: '2-digit', second: '2-digit' });
const day = new Intl.DateTimeFormat('en-GB', { day: 'numeric', month: 'short' });
const year = new Intl.DateTimeFormat('en-GB', { day: 'numeric', month: 'short', year: 'numeric' });

/* Whether a calendar reaches there. */
function isTime(ms: number): boolean {
	return !Number.isNaN(new Date(ms).getTime());
}

/* `14:03:22` of today, else `21 Nov 14:03:22`. */
export function time(ms: number, now = Date.now()): string {
	if (!isTime(ms)) {
		return NOTHING;
	}
	const [then, today] = [new Date(ms), new Date(now)];
	if (then.toDateString() === today.toDateString()) {
		return clock.format(then);
	}
	const date = then.getFullYear() === today.getFullYear() ? day : year;
	return `${date.format(then)} ${clock.format(then)}`;
}

function padded(value: number, length = 2): string {
	return String(Math.trunc(Math.abs(value))).padStart(length, '0');
}

/* `2026-11-22 14:03:22.250 +01:00`, in the viewer's zone. */
export function exactTime(ms: number): string {
	if (!isTime(ms)) {
		return NOTHING;
	}
	const then = new Date(ms);
	const offset = -then.getTimezoneOffset();
	const date = [then.getFullYear(), padded(then.getMonth() + 1), padded(then.getDate())].join('-');
	const hours = [padded(then.getHours()), padded(then.getMinutes()), padded(then.getSeconds())].join(':');
	const zone = `${offset < 0 ? '-' : '+'}${padded(offset / 60)}:${padded(offset % 60)}`;
	return `${date} ${hours}.${padded(then.getMilliseconds(), 3)} ${zone}`;
}

/* `3 min ago` */
export function ago(ms: number, now = Date.now()): string {
	const passed = Math.max(0, now - ms);
	if (passed < 60000) {
		return `${Math.floor(passed / 1000)} s ago`;
	}
	const minutes = Math.floor(passed / 60000);
	return minutes < 120 ? `${minutes} min ago` : minutes < 2880 ? `${Math.floor(minutes / 60)} h ago` : `${Math.floor(minutes / 1440)} d ago`;
}

/* A moment, with the exact one on hover. */
export function timeElement(ms: number, text = time(ms)): HTMLTimeElement {
	return el('time', { datetime: isTime(ms) ? new Date(ms).toISOString() : undefined, title: exactTime(ms) }, text);
}
