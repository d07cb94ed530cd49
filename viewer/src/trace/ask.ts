/* Has the collector answer for a request or a trace, and makes the model of it. */
import { askStream } from '../api/ask';
import type { OneRequest, Trace } from '../api/types';
import { ModelBuilder, type Model } from './model';
import { AnswerSplitter, Breaks, nextTask } from './split';

export type Kind = 'request' | 'trace';

/* `onProgress` is told how many spans have come. */
export async function askModel(kind: Kind, id: string, signal: AbortSignal, onProgress: (spans: number) => void): Promise<Model> {
	const stream = await askStream(`/api/v1/${kind}`, { id }, signal);
	const builder = new ModelBuilder();
	const splitter = new AnswerSplitter(kind === 'request' ? 1 : 3, (list, spans) => builder.add(list, spans));
	const breaks = new Breaks();
	const reader = stream.getReader();
	for (;;) {
		const { done, value } = await reader.read();
		if (done) {
			break;
		}
		splitter.push(value);
		if (await breaks.take()) {
			onProgress(builder.size);
		}
	}
	const answer = splitter.end();
	await nextTask();
	return kind === 'request' ? builder.request(answer as OneRequest) : builder.trace(answer as Trace);
}
