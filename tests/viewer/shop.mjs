/*
 * A shop's requests as the extension would send them, the same ones every time but for the clock: a
 * cart that asks for each of its items, an order that asks two services, a report with a slow
 * statement, pages that fail, and a worker.
 */
import { createConnection } from 'node:net';

/* mulberry32 */
export function chance(seed) {
	let state = seed;
	return () => {
		state = (state + 0x6d2b79f5) | 0;
		let mixed = Math.imul(state ^ (state >>> 15), state | 1);
		mixed ^= mixed + Math.imul(mixed ^ (mixed >>> 7), mixed | 61);
		return ((mixed ^ (mixed >>> 14)) >>> 0) / 4294967296;
	};
}

export class Requests {
	constructor(seed = 7) {
		this.random = chance(seed);
		this.lines = [];
		this.ids = 0;
	}

	id(length = 16) {
		this.ids++;
		return Math.floor(this.random() * 2 ** 32).toString(16).padStart(8, '0') +
			this.ids.toString(16).padStart(length - 8, '0');
	}

	/* About `middle`, seldom much more. */
	about(middle) {
		return Math.max(1, Math.round(middle * Math.exp((this.random() + this.random() + this.random() - 1.5) * 0.7)));
	}

	begin(start, of) {
		return new Recorded(this, start, of);
	}
}

/* One request: its calls follow each other, `inside` opens one around others. */
export class Recorded {
	constructor(requests, start, { application, name, trace, caller, ...info }) {
		this.requests = requests;
		this.start = start;
		this.now = start;
		this.application = application;
		this.name = name;
		this.trace = trace ?? requests.id(32);
		this.info = info;
		this.cpu = 0;
		this.spans = [];
		this.open = [];
		this.root = this.span('main', 'PHP', caller ? { psi: caller } : {});
		this.open.push(this.root);
	}

	span(fn, cn, members = {}) {
		const outer = this.open.at(-1);
		const span = { st: this.now, et: this.now, fn, cn, si: this.requests.id(), ...(outer ? { psi: outer.si } : {}), ...members };
		this.spans.push(span);
		return span;
	}

	code(ms) {
		this.now += ms;
		this.cpu += ms;
		return this;
	}

	wait(ms) {
		this.now += ms;
		return this;
	}

	inside(fn, calls, members = {}) {
		const span = this.span(fn, 'PHP', members);
		this.open.push(span);
		calls(this);
		this.open.pop();
		span.et = this.now;
		return this;
	}

	statement(qs, ms, members = {}) {
		const span = this.span('PDO::query', 'PDO', { ex: 1, qs, ...members });
		this.now += ms;
		span.et = this.now;
		return this;
	}

	cache(fn, ms) {
		const span = this.span(fn, 'Redis', { ex: 1, hn: 'cache.shop.example' });
		this.now += ms;
		span.et = this.now;
		return this;
	}

	/* The span's id is the caller of what the service records. */
	call(url, ms, status = 200) {
		const span = this.span('curl_exec', 'HTTP', { ex: 1, hn: url, esc: status });
		this.now += ms;
		span.et = this.now;
		return span.si;
	}

	end() {
		this.root.et = this.now;
		const web = this.info.transaction_type !== 0;
		const document = {
			apm: {
				data: true,
				application_info: { application_type: 'PHP', application_name: this.application, instance_id: `${this.application}-1` },
				transaction_info: {
					t_name: this.name, s_time: this.start, e_time: this.now, transaction_type: 1, cputime: this.cpu,
					memalloc: 4 << 20, trace_id: this.trace,
					...(web ? { http_host: 'shop.example', httpcode: 200, http_method_name: 'GET' } : {}),
					...this.info,
				},
				method_info: { span_info: this.spans },
				app_parameters: {},
			},
		};
		this.requests.lines.push(Buffer.from(JSON.stringify(document)).toString('base64') + '\n');
		return this;
	}
}

function cart(all, at) {
	const items = 3 + Math.floor(all.random() * 60);
	all.begin(at, { application: 'Shop', name: '/cart', http_query_str: 'items=' + items })
		.code(all.about(8))
		.inside('Session::start', (r) => r.cache('Redis::get', 1).code(2))
		.inside('Cart::items', (r) => {
			for (let i = 0; i < items; i++) {
				r.statement(`SELECT id, name, price FROM item WHERE id = ${i}`, all.about(4));
			}
		})
		.inside('View::render', (r) => r.code(all.about(30)))
		.end();
}

function stock(all, at, trace, caller) {
	const failed = all.random() < 0.03;
	const r = all.begin(at, { application: 'Stock', name: '/stock/item', trace, caller, http_host: 'stock.example', httpcode: failed ? 500 : 200 })
		.code(2)
		.statement('SELECT amount FROM stock WHERE item = 3 FOR UPDATE', all.about(12));
	if (failed) {
		r.inside('Stock::reserve', (each) => each.code(3), {
			if: 1, ei: [{ err_clz: 'OutOfStock', str: `no more of item ${Math.floor(all.random() * 90)}`, filename: '/srv/stock/Stock.php', linenumber: 71, level: 'Error' }],
		});
	}
	r.end();
	return r.now - at;
}

function prices(all, at, trace, caller) {
	const r = all.begin(at, { application: 'Prices', name: '/price', trace, caller, http_host: 'prices.example' })
		.code(3)
		.inside('Rates::today', (each) => each.call('https://rates.example/today?base=EUR', all.about(60)))
		.end();
	return r.now - at;
}

function order(all, at) {
	const r = all.begin(at, { application: 'Shop', name: '/order', http_method_name: 'POST' }).code(all.about(10));
	for (const [url, service] of [['http://stock.example/stock/item?id=3', stock], ['http://prices.example/price?id=3', prices]]) {
		r.inside('Client::get', () => {
			const begun = r.now + 2;
			const id = r.call(url, 0);
			const took = service(all, begun, r.trace, id) + 4;
			r.spans.find((span) => span.si === id).et += took;
			r.wait(took);
		});
	}
	r.statement('INSERT INTO orders (item, amount) VALUES (3, 1)', all.about(6)).end();
}

function report(all, at) {
	all.begin(at, { application: 'Shop', name: '/report' })
		.code(all.about(20))
		.inside('Report::sales', (r) => r.statement('SELECT c.name, SUM(o.total) FROM orders o JOIN customer c ON c.id = o.customer GROUP BY c.name', all.about(700)))
		.inside('Report::draw', (r) => r.code(all.about(90)))
		.end();
}

function failing(all, at) {
	all.begin(at, { application: 'Shop', name: '/checkout', httpcode: 500, http_method_name: 'POST' })
		.code(all.about(15))
		.inside('Payment::charge', (r) => r.call('https://pay.example/charge', all.about(250), 503), {
			if: 1, ei: [{ err_clz: 'PaymentFailed', str: 'the bank answered 503 for order ' + Math.floor(all.random() * 9999), filename: '/srv/shop/Payment.php', linenumber: 33, level: 'Error' }],
		})
		.end();
}

function front(all, at) {
	all.begin(at, { application: 'Shop', name: '/', http_host: all.random() < 0.3 ? 'www.shop.example' : 'shop.example' })
		.code(all.about(6)).cache('Redis::get', 1)
		.inside('View::render', (r) => r.code(all.about(18)))
		.end();
}

function worker(all, at) {
	all.begin(at, { application: 'Worker', name: 'mail.php', transaction_type: 0 })
		.inside('Queue::next', (r) => r.statement('SELECT id, body FROM mail WHERE sent = 0 LIMIT 10', all.about(9)))
		.wait(all.about(300))
		.code(all.about(12))
		.end();
}

const KINDS = [[front, 40], [cart, 25], [order, 14], [report, 4], [failing, 3], [worker, 6]];

/* `count` requests, and those that they cause, spread over the minutes before `now`. */
export function shopRequests(count, minutes, now = Date.now(), seed = 7) {
	const all = new Requests(seed);
	const sum = KINDS.reduce((total, [, weight]) => total + weight, 0);
	for (let i = 0; i < count; i++) {
		const at = Math.round(now - 5000 - minutes * 60000 * (1 - i / count));
		let chosen = all.random() * sum;
		const [kind] = KINDS.find(([, weight]) => (chosen -= weight) < 0);
		kind(all, at);
	}
	return all.lines;
}

function sendLine(port, line) {
	return new Promise((resolve, reject) => {
		const socket = createConnection({ port, host: '127.0.0.1' }, () => socket.end(line));
		socket.on('close', resolve);
		// The collector ends connections of this port with a reset once everything has come.
		socket.on('error', (error) => (error.code === 'ECONNRESET' ? resolve() : reject(error)));
		socket.resume();
	});
}

export async function send(port, lines, together = 16) {
	for (let i = 0; i < lines.length; i += together) {
		await Promise.all(lines.slice(i, i + together).map((line) => sendLine(port, line)));
	}
}
