/*
 * Lines over time. All of a page have one cursor; what is dragged over becomes the time range. Marks,
 * such as releases, are drawn as dashed lines and named when the cursor is near.
 */
import uPlot from 'uplot';
import type { Mark, Range } from '../api/types';
import { changed, go, here } from '../state/address';
import { el, replace, shortened } from './dom';
import { exactTime, NOTHING, time } from './format';
import { colour, onTheme } from './theme';

export interface Line {
	readonly name: string;
	readonly values: readonly (number | null)[];
	/* Of style/tokens.css. */
	readonly colour: string;
	/* Stands on the line before it, as a box as wide as each step that is known. */
	readonly stacked?: boolean;
}

export interface LinesOptions {
	/* For those who do not see it. */
	readonly label: string;
	readonly times: readonly number[];
	readonly step: number;
	readonly lines: readonly Line[];
	readonly format: (value: number | null) => string;
	readonly marks?: readonly Mark[];
	readonly height?: number;
	/* The axis of time reaches from there to there, whatever is known of it. */
	readonly range?: Range;
	/* The axis reaches at least up to there. */
	readonly least?: number;
	readonly most?: number;
}

const HEIGHT = 120;
/* Left of the lines: at least so much, so that charts beside each other are alike. */
const AXIS = 58;
const GAP = 4;
const SMALLEST_DRAG = 6; /* pixels */
/* Of the lines of one chart, in pixels of line and of gap. */
const DASHES = [[], [8, 3], [3, 5]] as const;
const POINTS = [11, 7.5, 4] as const;

/* One cursor for every chart that is shown. */
const cursors = uPlot.sync('time');

function sums(lines: readonly Line[]): (readonly (number | null)[])[] {
	const below: number[] = [];
	return lines.map((line) =>
		line.stacked ? line.values.map((value, i) => (value === null ? null : (below[i] = (below[i] ?? 0) + value))) : line.values,
	);
}

function drawMarks(plot: uPlot, marks: readonly Mark[]): void {
	const { ctx, bbox } = plot;
	ctx.save();
	ctx.strokeStyle = colour('--mark');
	ctx.fillStyle = colour('--mark');
	ctx.lineWidth = devicePixelRatio;
	for (const mark of marks) {
		const x = Math.round(plot.valToPos(mark.time_ms / 1000, 'x', true));
		if (x >= bbox.left && x <= bbox.left + bbox.width) {
			ctx.setLineDash([4 * devicePixelRatio, 3 * devicePixelRatio]);
			ctx.beginPath();
			ctx.moveTo(x, bbox.top);
			ctx.lineTo(x, bbox.top + bbox.height);
			ctx.stroke();
			ctx.fillRect(x - 3 * devicePixelRatio, bbox.top, 6 * devicePixelRatio, 4 * devicePixelRatio);
		}
	}
	ctx.restore();
}

function selected(plot: uPlot): void {
	const { left, width } = plot.select;
	if (width < SMALLEST_DRAG) {
		return;
	}
	const [from, to] = [plot.posToVal(left, 'x') * 1000, plot.posToVal(left + width, 'x') * 1000];
	plot.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
	go(changed(here(), { from: String(Math.floor(from / 60000) * 60000), to: String(Math.ceil(to / 60000) * 60000) }));
}

/* Room for the longest of the texts, and for none less than usual. */
function roomFor(font: string): uPlot.Axis.Size {
	return ({ ctx }, texts) => {
		ctx.save();
		ctx.font = font;
		// Nothing is known before the first values are.
		const widths = (texts as readonly string[] | null)?.map((text) => ctx.measureText(text).width) ?? [];
		ctx.restore();
		return Math.max(AXIS, Math.ceil(Math.max(0, ...widths)) + 2 * GAP);
	};
}

function axes(options: LinesOptions): uPlot.Axis[] {
	const font = `11px ${getComputedStyle(document.body).fontFamily}`;
	const common = {
		stroke: () => colour('--muted'),
		font,
		grid: { stroke: () => colour('--line'), width: 1 },
		ticks: { show: false },
	};
	const span = (options.range?.to_ms ?? options.times.at(-1) ?? 0) - (options.range?.from_ms ?? options.times[0] ?? 0);
	const texts = new Intl.DateTimeFormat(
		'en-GB',
		span > 3 * 864e5 ? { day: 'numeric', month: 'short' } : { hour: '2-digit', minute: '2-digit' },
	);
	return [
		{ ...common, size: 22, space: 60, values: (_, splits) => splits.map((value) => texts.format(value * 1000)) },
		{ ...common, size: roomFor(font), space: 28, gap: GAP, values: (_, splits) => splits.map((value) => options.format(value)) },
	];
}

/* Values between gaps, of which a line shows nothing. */
function lonely(values: ArrayLike<number | null | undefined>): number[] {
	const isKnown = (i: number) => (values[i] ?? null) !== null;
	return Array.from(values, (_, i) => i).filter((i) => isKnown(i) && !isKnown(i - 1) && !isKnown(i + 1));
}

const WHOLE_STEPS = uPlot.paths.bars?.({ size: [1, Infinity] });

function boxes(line: Line): Partial<uPlot.Series> {
	return { fill: () => colour(line.colour), points: { show: false }, ...(WHOLE_STEPS ? { paths: WHOLE_STEPS } : {}) };
}

/* Where lines lie over each other those below are seen between the dashes, and around the points. */
function dashes(line: Line, at: number): Partial<uPlot.Series> {
	return {
		dash: [...(DASHES[at] ?? [])],
		points: { size: POINTS[at] ?? 4, fill: () => colour(line.colour), show: false, filter: (plot, of) => lonely(plot.data[of] ?? []) },
	};
}

function series(options: LinesOptions): uPlot.Series[] {
	return [
		{},
		...options.lines.map((line, i): uPlot.Series => ({
			label: line.name,
			stroke: () => colour(line.colour),
			width: line.stacked ? 0 : 1.5,
			spanGaps: false,
			...(line.stacked ? boxes(line) : dashes(line, i)),
		})),
	];
}

function legend(options: LinesOptions): { readonly element: HTMLElement; readonly show: (index: number | null) => void } {
	const when = el('span', { class: 'readout-time' });
	const values = options.lines.map(() => el('span', { class: 'readout-value' }));
	const element = el(
		'div',
		{ class: 'readout' },
		options.lines.map((line, i) =>
			el('span', { class: `readout-line${!line.stacked && i > 0 ? ' is-dashed' : ''}`, style: { '--key': `var(${line.colour})` } }, el('i', { class: 'key' }), line.name, ' ', values[i]),
		),
		when,
	);
	const show = (index: number | null) => {
		const at = index === null ? undefined : options.times[index];
		options.lines.forEach((line, i) => {
			const value = index === null ? undefined : line.values[index];
			replace(values[i] ?? element, at === undefined ? '' : value === undefined ? NOTHING : options.format(value));
		});
		const near = at === undefined ? [] : (options.marks ?? []).filter((mark) => Math.abs(mark.time_ms - at) <= options.step);
		replace(when, at !== undefined && time(at), near.map((mark) => el('b', { class: 'mark-text' }, ` ▾ ${shortened(mark.text, 60)}`)));
		when.title = at === undefined ? '' : exactTime(at);
	};
	return { element, show };
}

function summary(options: LinesOptions): string {
	const texts = options.lines.map((line) => {
		const known = line.values.filter((value): value is number => value !== null);
		return known.length === 0
			? `${line.name}: nothing`
			: `${line.name}: ${options.format(Math.min(...known))} to ${options.format(Math.max(...known))}, at the end ${options.format(known.at(-1) ?? null)}`;
	});
	return `${options.label}. ${texts.join('; ')}`;
}

function timeScale(range: Range | undefined): uPlot.Scale {
	return { time: true, ...(range ? { range: [range.from_ms / 1000, range.to_ms / 1000] } : {}) };
}

function make(options: LinesOptions, width: number, show: (index: number | null) => void, into: HTMLElement): uPlot {
	const stacked = options.lines.some((line) => line.stacked);
	const values = sums(options.lines);
	// The highest sum is drawn first, and the others over it.
	const order = options.lines.map((_, i) => (stacked ? options.lines.length - 1 - i : i));
	const drawn = { ...options, lines: order.flatMap((i) => options.lines[i] ?? []) };
	// A box stands around its point, a line begins at it.
	const shift = stacked ? options.step / 2 : 0;
	const data = [options.times.map((each) => (each + shift) / 1000), ...order.map((i) => values[i] ?? [])];
	return new uPlot(
		{
			width,
			height: options.height ?? HEIGHT,
			padding: [6, 18, 0, 0],
			legend: { show: false },
			cursor: { sync: { key: cursors.key, setSeries: false }, y: false, points: { size: 6 }, drag: { setScale: false, x: true, y: false } },
			scales: {
				x: timeScale(options.range),
				y: { range: (_, __, max) => [0, Math.min(options.most ?? Infinity, Math.max(max * 1.08, options.least ?? 0) || 1)] },
			},
			axes: axes(options),
			series: series(drawn),
			hooks: {
				draw: [(plot) => drawMarks(plot, options.marks ?? [])],
				setCursor: [(plot) => show(plot.cursor.idx ?? null)],
				setSelect: [selected],
			},
		},
		data as unknown as uPlot.AlignedData,
		into,
	);
}

export function lines(options: LinesOptions): HTMLElement {
	const { element: readout, show } = legend(options);
	const canvas = el('div', { class: 'lines-plot', role: 'img', 'aria-label': summary(options), style: { height: `${options.height ?? HEIGHT}px` } });
	const element = el('div', { class: 'lines' }, readout, canvas);
	let plot: uPlot | undefined;
	const forgetTheme = onTheme(() => plot?.redraw(false));
	// A chart that is taken out of the page has no size any more: it ends.
	const sizes = new ResizeObserver(() => {
		const width = canvas.clientWidth;
		if (!canvas.isConnected) {
			sizes.disconnect();
			forgetTheme();
			plot?.destroy();
		} else if (plot) {
			plot.setSize({ width, height: options.height ?? HEIGHT });
		} else if (width > 0) {
			plot = make(options, width, show, canvas);
		}
	});
	sizes.observe(canvas);
	return element;
}
