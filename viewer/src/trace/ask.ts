/* Has the collector answer for a request or a trace, and makes the model of it. */
import { askResponse } from '../api/ask';
import type { OneRequest, Span, Trace } from '../api/types';
import { ModelBuilder, type Model } from './model';
import { AnswerSplitter, Breaks, nextTask } from './split';

export type Kind = 'request' | 'trace';

/* Takes some ten milliseconds to be read at once. */
const READ_AT_ONCE = 6e6; // bytes

/* Lists of spans that came with an answer, by their number. */
function spanLists(kind: Kind, answer: unknown): readonly (readonly Span[])[] {
	const requests = kind === 'request' ? [answer as OneRequest] : (answer as Trace).requests;
	return requests.flatMap((each) => (each.spans ? [each.spans] : []));
}

async function readInPieces(kind: Kind, response: Response, builder: ModelBuilder, onProgress: (spans: number) => void): Promise<unknown> {
	const splitter = new AnswerSplitter(kind === 'request' ? 1 : 3, (list, spans) => builder.add(list, spans));
	const breaks = new Breaks();
	const reader = response.body?.getReader();
	for (let read = await reader?.read(); read && !read.done; read = await reader?.read()) {
		splitter.push(read.value);
		if (await breaks.take()) {
			onProgress(builder.size);
		}
	}
	const answer = splitter.end();
	await nextTask();
	return answer;
}

/* `onProgress` is told how many spans have come. */
export async function askModel(kind: Kind, id: string, signal: AbortSignal, onProgress: (spans: number) => void): Promise<Model> {
	const response = await askResponse(`/api/v1/${kind}`, { id }, signal);
	const builder = new ModelBuilder();
	const length = Number(response.headers.get('Content-Length') ?? Infinity);
	let answer: unknown;
	if (length <= READ_AT_ONCE) {
		answer = await response.json();
		spanLists(kind, answer).forEach((spans, list) => builder.add(list, spans));
	} else {
		answer = await readInPieces(kind, response, builder, onProgress);
	}
	return kind === 'request' ? builder.request(answer as OneRequest) : builder.trace(answer as Trace);
}
