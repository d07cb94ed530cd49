/*
 * The demonstration's shop, running, with a collector of its own: KAQ_PHP, KAQ_SO and KAQ_COLLECTOR name
 * its engine, extension and collector.
 */
import { spawn } from 'node:child_process';
import { join } from 'node:path';
import { HERE } from './modules.mjs';

const START_MS = 240000;
/* The demonstration waits some seconds for each process that it ends. */
const STOP_MS = 60000;

/* What is missing, in words; nothing if it can run. */
export function demoMissing({ KAQ_PHP, KAQ_SO, KAQ_COLLECTOR } = process.env) {
	return Object.entries({ KAQ_PHP, KAQ_SO, KAQ_COLLECTOR }).flatMap(([name, value]) => (value ? [] : [`${name} names nothing`])).join(', ');
}

export class Demo {
	/* `link` logs a browser in, once and within some minutes; `shop` is the shop's address. */
	static async start({ KAQ_PHP: php, KAQ_SO: extension, KAQ_COLLECTOR: collector } = process.env) {
		const demo = new Demo();
		const play = join(HERE, '..', '..', 'demo', 'play.py');
		demo.child = spawn('python3', [play, '--php', php, '--extension', extension, '--collector', collector, '--free-ports', '--serve'], { stdio: ['ignore', 'pipe', 'inherit'] });
		try {
			[demo.link, demo.shop] = await demo.#addresses();
		} catch (error) {
			await demo.stop();
			throw error;
		}
		demo.url = new URL(demo.link).origin;
		return demo;
	}

	#addresses() {
		return new Promise((done, fail) => {
			let said = '';
			const timer = setTimeout(() => fail(new Error('the demonstration does not start')), START_MS);
			this.child.once('exit', (status) => fail(new Error(`the demonstration ended with status ${status}`)));
			this.child.stdout.on('data', (text) => {
				said += text;
				const found = /by a link that works once:\s+(\S+)\s[^]*for more requests:\s+(\S+)\//.exec(said);
				if (found) {
					clearTimeout(timer);
					done(found.slice(1));
				}
			});
		});
	}

	/* Pages of the shop answer as they do, errors with their status. */
	async visit(path) {
		await (await fetch(this.shop + path)).arrayBuffer();
	}

	async stop() {
		const { child } = this;
		if (child.exitCode === null) {
			const ended = new Promise((done) => child.once('exit', done));
			const timer = setTimeout(() => child.kill('SIGKILL'), STOP_MS);
			child.kill('SIGINT');
			await ended;
			clearTimeout(timer);
		}
	}
}
