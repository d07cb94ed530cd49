/* A curve the size of a word. */
import { svg } from './dom';

const WIDTH = 96;
const HEIGHT = 20;

/* `label` says what it shows. Where values are null there is a gap. */
export function sparkline(values: readonly (number | null)[], label: string, className = ''): SVGElement {
	const most = Math.max(...values.map((value) => value ?? 0), 0);
	const x = (i: number) => (values.length < 2 ? WIDTH / 2 : (i / (values.length - 1)) * (WIDTH - 2) + 1);
	const y = (value: number) => HEIGHT - 2 - (most > 0 ? value / most : 0) * (HEIGHT - 4);
	let path = '';
	let isDrawing = false;
	values.forEach((value, i) => {
		if (value !== null) {
			// A single point between gaps is a short line.
			path += `${isDrawing ? 'L' : 'M'}${x(i).toFixed(1)} ${y(value).toFixed(1)}`;
			path += !isDrawing && (values[i + 1] ?? null) === null ? 'h1.5' : '';
		}
		isDrawing = value !== null;
	});
	return svg(
		'svg',
		{ class: `sparkline ${className}`.trim(), viewBox: `0 0 ${WIDTH} ${HEIGHT}`, width: WIDTH, height: HEIGHT, role: 'img', 'aria-label': label },
		svg('path', { d: path, fill: 'none' }),
	);
}
