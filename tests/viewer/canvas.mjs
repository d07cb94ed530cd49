/* What is drawn on a canvas, read from its points. Runs within the page. */

/*
 * Of each colour of style/tokens.css how many points of the canvas have it, and in which columns, as
 * runs of columns beside each other: [[from, to], ...], `to` behind the last one. `band` is [top, bottom]
 * of the lines that are looked at. All are pixels of the page.
 */
export function drawn(canvas, { names, band }) {
	const scale = canvas.width / canvas.clientWidth;
	const [top, bottom] = (band ?? [0, canvas.clientHeight]).map((each) => Math.round(each * scale));
	// To read from the canvas itself would have the browser draw it in another way from then on.
	const copy = new OffscreenCanvas(canvas.width, canvas.height).getContext('2d', { willReadFrequently: true });
	copy.drawImage(canvas, 0, 0);
	const { data, width } = copy.getImageData(0, top, canvas.width, Math.max(1, bottom - top));
	const probe = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
	return names.map((name) => {
		canvas.style.color = `var(${name})`;
		probe.fillStyle = getComputedStyle(canvas).color;
		probe.fillRect(0, 0, 1, 1);
		const [red, green, blue] = probe.getImageData(0, 0, 1, 1).data;
		const columns = new Set();
		let points = 0;
		for (let i = 0; i < data.length; i += 4) {
			if (Math.abs(data[i] - red) + Math.abs(data[i + 1] - green) + Math.abs(data[i + 2] - blue) < 24 && data[i + 3] > 200) {
				points++;
				columns.add((i / 4) % width);
			}
		}
		const begins = [...columns].filter((column) => !columns.has(column - 1)).sort((one, other) => one - other);
		const runs = begins.map((begin) => {
			let end = begin;
			while (columns.has(end)) {
				end++;
			}
			return [begin / scale, end / scale];
		});
		return { points, runs };
	});
}
