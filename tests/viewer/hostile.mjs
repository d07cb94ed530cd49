/* A request in which every recorded text tries to become a part of the page. */
const MARKS = '\u202E\u2066\u200F\u0007';
const ATTACKS = [
	'<script>window.hacked = 1</script>',
	'</script><script>window.hacked = 2</script>',
	'<img src=x onerror="window.hacked = 3">',
	'"><svg onload=window.hacked=4>',
	"javascript:window.hacked=5//'",
	'<!--<script>',
	'</style><style>*{display:none}</style>',
	`${MARKS}<b>back to front`,
	'{{constructor.constructor("window.hacked=6")()}}',
	']]></div></main>',
];

/* 1 MB, as a name. */
export const LARGE = 'Larg\u00e9 '.repeat(1e6 / 7);

export function hostileRequest(now = Date.now()) {
	let used = 0;
	const text = (what) => `${what} ${ATTACKS[used++ % ATTACKS.length]} ${what} ${ATTACKS[used++ % ATTACKS.length]}`;
	const names = (what) => ({ [text(`${what} name`)]: text(what), [text(`${what} other`)]: '</script><script>window.hacked = 7</script>' });
	let ids = 0;
	const rootId = 'bad0000000000001';
	const start = now - 60000;
	const span = (members) => ({ st: start + 10 * ids, et: start + 10 * ids + 40, fn: text('function'), cn: text('component'), si: `bad00000000001${String(ids++).padStart(2, '0')}`, psi: rootId, ...members });
	const failure = () => ({ err_clz: text('class'), str: text('message'), filename: text('file'), linenumber: 7, level: text('level') });
	const stack = [[text('class'), text('function'), text('file'), 3], ['', '</script>', '', 0]];
	const spans = [
		{ st: start, et: start + 900, fn: 'main', cn: 'PHP', si: rootId, psi: text('caller') },
		span({ cn: 'PHP', if: 1, ei: [failure(), failure()], mst: stack }),
		span({ cn: 'PDO', ex: 1, qs: `SELECT 1 /* ${text('statement')} */`, hn: text('host'), dn: text('database'), mst: stack }),
		span({ cn: 'HTTP', fn: 'curl_exec', ex: 1, hn: `http://x.example/${text('url')}`, esc: 200, erqh: names('sent'), ersh: names('received') }),
		span({ cn: 'Redis', ex: 1, hn: text('cache') }),
		span({ cn: 'PHP', fn: LARGE }),
		span({ cn: 'PDO', ex: 1, qs: `SELECT ${LARGE}` }),
		...[1, 2, 3, 4, 5, 6].map(() => ({ ...span({}), cn: 'PDO', fn: 'PDO::query', ex: 1, qs: 'SELECT "<script>window.hacked = 8</script>" FROM `</script>`', et: start + 300 })),
	];
	const document = {
		apm: {
			data: true,
			application_info: { application_type: 'PHP', application_name: text('application'), application_group: text('group'), instance_id: text('instance') },
			transaction_info: {
				t_name: `/${text('path')}`, http_host: text('host'), http_query_str: text('query'), s_time: start, e_time: start + 900, http_method_name: text('method'), transaction_type: 1,
				httpcode: 500, cputime: 20, memalloc: 4 << 20, trace_id: 'bad00000000000000000000000000001', session_id: text('session'), http_headers: names('header'), http_input_params: names('parameter'),
				http_resp_headers: names('response'), custom_params: names('custom'),
			},
			method_info: { span_info: spans },
			app_parameters: { sum: { [text('sum')]: 3 }, average: { [text('average')]: 1.5 }, data: true },
		},
	};
	return { id: rootId, trace: 'bad00000000000000000000000000001', line: `${Buffer.from(JSON.stringify(document)).toString('base64')}\n` };
}
