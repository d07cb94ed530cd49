/*
 * A file that holds one request or one trace: the same view as in the collector's pages, from data that
 * stands in the file. It asks nobody anything and leads nowhere.
 *
 * The data are elements that no browser runs: `kaq-answer` is what the interface answered but for its
 * spans, and each `kaq-spans` is a piece of the list of a request, whose number is its `data-list`.
 */
import type { OneRequest, Span, Trace } from './api/types';
import { openDialog } from './ui/dialog';
import { el, replace } from './ui/dom';
import { exactTime } from './ui/format';
import { commands, setCommands, setPageCommands, startKeys } from './ui/keys';
import { keyList } from './ui/key_list';
import { emptyState } from './ui/states';
import { nextTheme, startTheme } from './ui/theme';
import { ModelBuilder, plain, requestTitle, type Model } from './trace/model';
import { Breaks } from './trace/split';
import type { Surroundings } from './trace/surroundings';
import { TraceView } from './trace/view';

interface SharedAnswer {
	readonly kind: 'request' | 'trace';
	readonly written_ms: number;
	readonly answer: OneRequest | Trace;
}

/* What of the view is restored stands behind the file's name. */
function held(): URLSearchParams {
	return new URLSearchParams(location.hash.slice(1));
}

const surroundings: Surroundings = {
	links: undefined,
	tools: () => null,
	get: (name) => held().get(name) ?? '',
	set: (changes) => {
		const all = held();
		for (const [name, value] of Object.entries(changes)) {
			if (value) {
				all.set(name, value);
			} else {
				all.delete(name);
			}
		}
		history.replaceState(null, '', `#${all.toString()}`);
	},
};

async function readModel(shared: SharedAnswer): Promise<Model> {
	const builder = new ModelBuilder();
	const breaks = new Breaks();
	for (const piece of document.querySelectorAll<HTMLElement>('script[data-list]')) {
		builder.add(Number(piece.dataset.list), JSON.parse(piece.textContent) as Span[]);
		piece.remove();
		await breaks.take();
	}
	return shared.kind === 'request' ? builder.request(shared.answer as OneRequest) : builder.trace(shared.answer as Trace);
}

function openKeys(): void {
	openDialog('Keys', keyList('Keys', [...commands().ofPage, ...commands().everywhere]));
}

function does(run: () => void): () => undefined {
	return () => {
		run();
		return undefined;
	};
}

async function start(): Promise<void> {
	startTheme();
	startKeys();
	setCommands([
		{ keys: ['d'], text: 'Light, dark, or as the system', run: does(nextTheme) },
		{ keys: ['?'], text: 'This help', run: does(openKeys) },
	]);
	const main = el('main', { id: 'main', tabindex: -1 });
	const foot = el('span', { class: 'muted' });
	document.body.append(
		el(
			'header',
			{ class: 'top file-top' },
			el('b', {}, 'kaq'),
			foot,
			el('button', { type: 'button', class: 'plain', 'aria-label': 'Theme', title: 'Theme ( d )', on: { click: nextTheme } }, '◐'),
			el('button', { type: 'button', class: 'plain', 'aria-label': 'Keys', title: 'Keys ( ? )', on: { click: openKeys } }, '?'),
		),
		main,
	);
	const text = document.getElementById('kaq-answer')?.textContent;
	if (!text) {
		replace(main, emptyState('There is no request in this file.', 'It was cut off on its way: have it sent again.'));
		return;
	}
	const shared = JSON.parse(text) as SharedAnswer;
	replace(foot, `as it was kept on ${exactTime(shared.written_ms)}`);
	const model = await readModel(shared);
	if (model.size === 0) {
		replace(main, emptyState('There is no call in this file.'));
		return;
	}
	document.title = plain(model.parts[0] ? `${requestTitle(model.parts[0].row)}${model.isTrace ? ' (trace)' : ''}` : 'kaq');
	const view = new TraceView(model, surroundings);
	replace(main, view.element);
	view.restore();
	setPageCommands(view.commands);
}

void start();
