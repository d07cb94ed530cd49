/* One request of as many spans as are wanted, as a site that builds a long page would cause them. */
import { Requests } from './shop.mjs';

const NAMES = ['Catalogue::load', 'Price::of', 'Tax::rate', 'View::part', 'Text::translate', 'Image::size', 'Stock::of', 'Event::dispatch'];

function part(all, request, left, depth) {
	const kind = all.random();
	if (kind < 0.3) {
		request.statement(`SELECT id, name, price FROM item_${Math.floor(all.random() * 12)} WHERE id = ${Math.floor(all.random() * 1e4)}`, all.about(2));
		return 1;
	}
	if (kind < 0.36) {
		request.cache('Redis::get', 1);
		return 1;
	}
	if (kind < 0.362) {
		request.call(`https://prices.example/of?item=${Math.floor(all.random() * 1e4)}`, all.about(9));
		return 1;
	}
	let made = 1;
	const wanted = depth > 14 ? 0 : Math.min(left - 1, Math.floor(all.random() * (depth < 4 ? 40 : 7)));
	request.inside(NAMES[Math.floor(all.random() * NAMES.length)], () => {
		request.code(all.random() < 0.3 ? 1 : 0);
		while (made - 1 < wanted) {
			made += part(all, request, left - made, depth + 1);
		}
	});
	return made;
}

/* Its id is that of the root span. */
export function largeRequest(spans, now = Date.now(), seed = 11) {
	const all = new Requests(seed);
	const request = all.begin(now - 600000, { application: 'Shop', name: `/long/${spans}`, path: `/long/${spans}` });
	for (let made = 1; made < spans; ) {
		made += part(all, request, spans - made, 1);
	}
	request.end();
	return { id: request.root.si, trace: request.trace, line: all.lines[0], spans: request.spans.length };
}
