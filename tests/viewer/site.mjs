/*
 * A collector of its own for a test, with what it shows in Chromium. From the environment:
 *   KAQ_PROGRAM   the collector
 *   KAQ_PACKAGES  the directory with node_modules; viewer/ if it is left out
 *   KAQ_PAGES     pages that are served instead of those in the collector, while they are worked on
 *   KAQ_CHROMIUM  /usr/bin/chromium if it is left out
 */
import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { createServer, request as httpRequest } from 'node:http';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { basename, extname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { send } from './shop.mjs';

const STARTS_WITHIN_MS = 20000;
const COMES_WITHIN_MS = 30000;

export const root = resolve(fileURLToPath(import.meta.url), '../../..');

/* From the packages of the viewer. */
export const packages = createRequire(join(process.env.KAQ_PACKAGES ?? join(root, 'viewer'), 'package.json'));

export function sleep(ms) {
	return new Promise((done) => setTimeout(done, ms));
}

async function until(what, ms, check) {
	const end = Date.now() + ms;
	for (;;) {
		const found = await check();
		if (found) {
			return found;
		}
		if (Date.now() > end) {
			throw new Error(`${what}: not within ${ms} ms`);
		}
		await sleep(50);
	}
}

const TYPES = { '.js': 'text/javascript', '.css': 'text/css', '.svg': 'image/svg+xml', '.html': 'text/html; charset=utf-8' };

/* Pages from a directory in front of a collector. */
function servePages(directory, port, token) {
	const server = createServer((question, answer) => {
		const { pathname } = new URL(question.url, 'http://localhost');
		if (pathname.startsWith('/api/')) {
			const headers = { ...question.headers, host: `127.0.0.1:${port}`, authorization: `Bearer ${token}` };
			delete headers.origin;
			const asked = httpRequest({ host: '127.0.0.1', port, path: question.url, method: question.method, headers }, (from) => {
				answer.writeHead(from.statusCode, from.headers);
				from.pipe(answer);
			});
			asked.on('error', () => answer.destroy());
			answer.on('close', () => asked.destroy());
			question.pipe(asked);
			return;
		}
		const named = join(directory, basename(pathname));
		const file = extname(named) && existsSync(named) ? named : join(directory, 'index.html');
		answer.writeHead(200, { 'Content-Type': TYPES[extname(file)], 'Content-Security-Policy': "default-src 'self'" });
		answer.end(readFileSync(file));
	});
	return new Promise((done) => server.listen(0, '127.0.0.1', () => done(server)));
}

export class Site {
	/* REQUIRES: stop() at the end. */
	static async start() {
		const program = process.env.KAQ_PROGRAM;
		if (!program) {
			throw new Error('KAQ_PROGRAM names no collector');
		}
		const site = new Site();
		site.program = program;
		site.directory = mkdtempSync(join(tmpdir(), 'kaq-viewer-'));
		site.store = join(site.directory, 'store');
		const ports = ['--handshake', '0', '--data', '0', '--http', '0'];
		site.process = spawn(program, ['collect', ...ports, '--store', site.store, '--config', '/dev/null'], { stdio: ['ignore', 'pipe', 'ignore'] });
		let said = '';
		site.process.stdout.on('data', (text) => (said += text));
		const [, data, http] = await until('the collector starts', STARTS_WITHIN_MS, () => /payloads (\d+), http (\d+)/.exec(said));
		site.data = Number(data);
		site.http = Number(http);
		site.token = readFileSync(join(site.store, 'token'), 'utf8').trim();
		site.url = `http://127.0.0.1:${http}`;
		if (process.env.KAQ_PAGES) {
			site.pages = await servePages(process.env.KAQ_PAGES, site.http, site.token);
			site.url = `http://127.0.0.1:${site.pages.address().port}`;
		}
		return site;
	}

	async ask(path) {
		const answer = await fetch(`http://127.0.0.1:${this.http}${path}`, { headers: { authorization: `Bearer ${this.token}` } });
		return path.includes('format=html') ? answer : answer.json();
	}

	/* Until the last of them can be found. */
	async record(lines, lastId) {
		await send(this.data, lines);
		await until(`request ${lastId} is kept`, COMES_WITHIN_MS, async () => (await this.ask(`/api/v1/request?id=${lastId}`)).request);
	}

	async run(...arguments_) {
		const child = spawn(this.program, [...arguments_, '--store', this.store], { stdio: ['ignore', 'pipe', 'inherit'] });
		const pieces = [];
		child.stdout.on('data', (piece) => pieces.push(piece));
		const status = await new Promise((done) => child.on('close', done));
		return { status, text: Buffer.concat(pieces).toString() };
	}

	async stop() {
		this.pages?.closeAllConnections?.();
		this.pages?.close();
		if (this.process && this.process.exitCode === null) {
			const ended = new Promise((done) => this.process.on('close', done));
			this.process.kill('SIGTERM');
			await ended;
		}
		rmSync(this.directory, { recursive: true, force: true });
	}
}

export async function startBrowser() {
	const { chromium } = packages('playwright-core');
	return chromium.launch({ executablePath: process.env.KAQ_CHROMIUM ?? '/usr/bin/chromium', args: ['--no-sandbox', '--disable-gpu'] });
}

/* A page that is logged in; what went wrong in it is in `mistakes`. */
export async function openPage(browser, site, { width = 1280, height = 820, theme = 'light' } = {}) {
	const context = await browser.newContext({ viewport: { width, height }, colorScheme: theme, reducedMotion: 'reduce' });
	await context.addCookies([{ name: 'kaq_token', value: site.token, url: site.url }]);
	const page = await context.newPage();
	page.setDefaultTimeout(15000);
	page.mistakes = [];
	page.on('pageerror', (error) => page.mistakes.push(String(error)));
	page.on('console', (message) => message.type() === 'error' && page.mistakes.push(message.text()));
	page.visit = (path) => page.goto(path.startsWith('file:') ? path : site.url + path);
	return page;
}
