/* A running collector with a store of its own on free ports, and a browser that is logged in. */
import { spawn, execFile } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { promisify } from 'node:util';
import { requirePackage } from './modules.mjs';
import { send } from './shop.mjs';

const START_MS = 20000;
const STOP_MS = 20000;
const ARRIVAL_MS = 30000;
const run = promisify(execFile);

function firstLine(child) {
	return new Promise((resolve, reject) => {
		const timer = setTimeout(() => reject(new Error('the collector does not start')), START_MS);
		createInterface({ input: child.stdout }).once('line', (line) => {
			clearTimeout(timer);
			resolve(line);
		});
		child.once('exit', (status) => reject(new Error(`the collector ended with status ${status}`)));
	});
}

export class Collector {
	/* `files` are in the store before, by their names. */
	static async start(files = {}, program = process.env.KAQ_COLLECTOR) {
		if (!program) {
			throw new Error('KAQ_COLLECTOR names the collector to be tested');
		}
		const collector = new Collector();
		collector.program = program;
		collector.store = mkdtempSync(join(tmpdir(), 'kaq-viewer-'));
		for (const [name, text] of Object.entries(files)) {
			writeFileSync(join(collector.store, name), text);
		}
		collector.child = spawn(
			program,
			['collect', '--handshake', '0', '--data', '0', '--http', '0', '--store', collector.store, '--config', '/dev/null'],
			{ stdio: ['ignore', 'pipe', 'ignore'] },
		);
		const line = await firstLine(collector.child).catch(async (error) => {
			await collector.stop();
			throw error;
		});
		const [, data, http] = /payloads (\d+), http (\d+);/.exec(line) ?? [];
		collector.data = Number(data);
		collector.url = `http://127.0.0.1:${http}`;
		collector.token = readFileSync(join(collector.store, 'token'), 'utf8').trim();
		return collector;
	}

	async ask(path, parameters = {}) {
		const address = `${this.url}${path}?${new URLSearchParams(parameters)}`;
		const response = await fetch(address, { headers: { Authorization: `Bearer ${this.token}` } });
		if (!response.ok) {
			throw new Error(`${address}: ${response.status} ${await response.text()}`);
		}
		return response.json();
	}

	async tell(path, parameters) {
		const response = await fetch(`${this.url}${path}?${new URLSearchParams(parameters)}`, {
			method: 'POST',
			headers: { Authorization: `Bearer ${this.token}` },
		});
		return response.json();
	}

	/* Until all of it can be found. */
	async take(lines) {
		const before = (await this.ask('/api/v1/status')).store.requests_put;
		await send(this.data, lines);
		for (const end = Date.now() + ARRIVAL_MS; Date.now() < end; ) {
			const { store } = await this.ask('/api/v1/status');
			const stored = store.parts.reduce((sum, part) => sum + part.requests, 0);
			if (store.requests_put >= before + lines.length && stored >= before + lines.length) {
				return;
			}
			await new Promise((resolve) => setTimeout(resolve, 100));
		}
		throw new Error('not all requests arrived');
	}

	/* Until so many are told of: figures of statements, errors and hosts come moments after their requests. */
	async gathered(path, member, count) {
		for (const end = Date.now() + ARRIVAL_MS; Date.now() < end; await new Promise((resolve) => setTimeout(resolve, 100))) {
			if ((await this.ask(path))[member].length >= count) {
				return;
			}
		}
		throw new Error(`there are no ${count} ${member} at ${path}`);
	}

	async loginLink() {
		const { stdout } = await run(this.program, ['open', '--store', this.store], { timeout: STOP_MS });
		return stdout.trim();
	}

	async stop() {
		if (this.child.exitCode === null) {
			const ended = new Promise((resolve) => this.child.once('exit', resolve));
			this.child.kill('SIGTERM');
			const timer = setTimeout(() => this.child.kill('SIGKILL'), STOP_MS);
			await ended;
			clearTimeout(timer);
		}
		rmSync(this.store, { recursive: true, force: true });
	}
}

export async function startBrowser() {
	const { chromium } = requirePackage('playwright-core');
	return chromium.launch({
		executablePath: process.env.KAQ_CHROMIUM ?? '/usr/bin/chromium',
		// Tests may run as root, and pages come from loopback alone.
		args: ['--no-sandbox', '--disable-background-networking'],
	});
}

/* A page whose browser is logged in; it fails when the page reports an error or asks anybody else. */
export async function openPage(browser, collector, options = {}) {
	const context = await browser.newContext({ viewport: { width: 1280, height: 900 }, colorScheme: 'light', ...options });
	const page = await context.newPage();
	page.setDefaultTimeout(15000);
	const problems = [];
	page.on('pageerror', (error) => problems.push(`error: ${error.message}`));
	page.on('console', (message) => {
		if (message.type() === 'error' || message.type() === 'warning') {
			problems.push(`${message.type()}: ${message.text()}`);
		}
	});
	page.on('request', (request) => {
		if (!request.url().startsWith(collector.url) && !request.url().startsWith('blob:')) {
			problems.push(`asked ${request.url()}`);
		}
	});
	await page.goto(await collector.loginLink());
	return { page, problems, close: () => context.close() };
}

/* Shows a page and waits until nothing is being asked for. */
export async function show(page, url) {
	await page.goto(url);
	await settled(page);
}

/* The page anew, by its address alone. */
export async function again(page, collector) {
	const address = page.url();
	await show(page, `${collector.url}/doctor`);
	await show(page, address);
}

export async function settled(page) {
	await page.waitForFunction(() => document.querySelector('main > *') && !document.querySelector('[aria-busy="true"]'));
	// Lines are drawn once their size is known.
	await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve))));
}
