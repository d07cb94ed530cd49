/*
 * Asks the collector. What it refuses, and what goes wrong on the way, comes as an ApiMistake, whose
 * text is for people.
 */
import type { MistakeBody, QueryMistake } from './types';

export type Parameters = Readonly<Record<string, string | number | boolean | undefined>>;

const UNREACHABLE: MistakeBody = {
	message: 'The collector does not answer.',
	hint: 'Is it still running? "kaq doctor" in a terminal says what is wrong.',
};

export class ApiMistake extends Error {
	readonly status: number;
	readonly hint: string;
	readonly parameter: string;
	readonly mistakes: readonly QueryMistake[];

	constructor(status: number, body: MistakeBody) {
		super(body.message);
		this.status = status;
		this.hint = body.hint ?? '';
		this.parameter = body.parameter ?? '';
		this.mistakes = body.mistakes ?? [];
	}
}

/* Whether nothing is wrong: the question was taken back. */
export function isAborted(error: unknown): boolean {
	return error instanceof DOMException && error.name === 'AbortError';
}

export function addressOf(path: string, parameters: Parameters = {}): string {
	const search = new URLSearchParams();
	for (const [name, value] of Object.entries(parameters)) {
		if (value !== undefined && value !== '') {
			search.set(name, String(value));
		}
	}
	const text = search.toString();
	return text ? `${path}?${text}` : path;
}

async function mistakeOf(response: Response): Promise<ApiMistake> {
	try {
		const body = (await response.json()) as { error?: MistakeBody };
		if (body.error) {
			return new ApiMistake(response.status, body.error);
		}
	} catch {
		// It is no JSON: what is known is the status.
	}
	return new ApiMistake(response.status, { message: `The collector answered with status ${response.status}.` });
}

async function send(address: string, init: RequestInit): Promise<Response> {
	let response: Response;
	try {
		response = await fetch(address, { ...init, credentials: 'same-origin', cache: 'no-store' });
	} catch (error) {
		throw isAborted(error) ? error : new ApiMistake(0, UNREACHABLE);
	}
	if (!response.ok) {
		throw await mistakeOf(response);
	}
	return response;
}

export async function ask<Answer>(path: string, parameters: Parameters, signal?: AbortSignal): Promise<Answer> {
	const response = await send(addressOf(path, parameters), signal ? { signal } : {});
	return (await response.json()) as Answer;
}

/* For what may be too large to be read at once. */
export function askResponse(path: string, parameters: Parameters, signal: AbortSignal): Promise<Response> {
	return send(addressOf(path, parameters), { signal });
}

/* Has the collector change something. */
export async function tell<Answer>(path: string, parameters: Parameters): Promise<Answer> {
	const response = await send(addressOf(path, parameters), { method: 'POST' });
	return (await response.json()) as Answer;
}

/* Whether a stream can be had: what is wrong with the question is thrown, the stream itself left. */
export async function checkStream(path: string, parameters: Parameters, signal: AbortSignal): Promise<void> {
	const response = await askResponse(path, parameters, signal);
	await response.body?.cancel();
}
