/*
 * Reads an answer while it comes. Of a request of 100 000 spans the text is 20 MB and more: parsed at
 * once, it would hold the page up. So the members of its lists of spans are parsed in batches, and what
 * is around them at the end.
 */
import type { Span } from '../api/types';

const [QUOTE, BACKSLASH, COMMA] = [0x22, 0x5c, 0x2c];
const [OPEN_LIST, CLOSE_LIST, OPEN_OBJECT, CLOSE_OBJECT] = [0x5b, 0x5d, 0x7b, 0x7d];
const SPANS = Array.from('"spans"', (letter) => letter.charCodeAt(0));

/* Lists of spans are members of objects that lie so deep: of the answer itself, or of its requests. */
export type SpansAt = 1 | 3;

const PIECE_BYTES = 1 << 17;

export class AnswerSplitter {
	private readonly around: Uint8Array[] = [];
	private readonly decoder = new TextDecoder();
	/* What has come and is not used yet; everything before `at` was looked at. */
	private bytes = new Uint8Array(0);
	private at = 0;
	/* Of what is around the spans, or of the first span that was not parsed. */
	private from = 0;
	private depth = 0;
	private isInText = false;
	private isEscaped = false;
	private textFrom = 0;
	private isSpansKey = false;
	private isInSpans = false;
	private lists = -1;

	/* `onSpans` gets the number of the list in the answer, from 0, and the next of its spans. */
	constructor(
		private readonly spansAt: SpansAt,
		private readonly onSpans: (list: number, spans: readonly Span[]) => void,
	) {}

	push(chunk: Uint8Array): void {
		for (let from = 0; from < chunk.length; from += PIECE_BYTES) {
			this.pushPiece(chunk.subarray(from, from + PIECE_BYTES));
		}
	}

	/* The answer without its spans: their lists are empty. */
	end(): unknown {
		this.around.push(this.bytes.subarray(this.from));
		const texts = this.around.map((each) => this.decoder.decode(each, { stream: true }));
		return JSON.parse(texts.join('') + this.decoder.decode());
	}

	private pushPiece(piece: Uint8Array): void {
		const left = this.bytes.subarray(this.from);
		const bytes = new Uint8Array(left.length + piece.length);
		bytes.set(left);
		bytes.set(piece, left.length);
		this.at -= this.from;
		this.textFrom -= this.from;
		this.bytes = bytes;
		this.from = 0;
		this.scan();
		if (!this.isInSpans) {
			// A key that has come in part is looked at again.
			const isKeyCut = this.isInText && bytes.length - this.textFrom < SPANS.length;
			const kept = isKeyCut ? this.textFrom : bytes.length;
			this.around.push(bytes.subarray(this.from, kept));
			this.from = kept;
		}
	}

	private scan(): void {
		const { bytes } = this;
		let lastEnd = -1;
		while (this.at < bytes.length) {
			const byte = bytes[this.at];
			if (this.isInText) {
				this.passText();
				continue;
			}
			if (byte === QUOTE) {
				this.isInText = true;
				this.textFrom = this.at;
			} else if (byte === OPEN_LIST || byte === OPEN_OBJECT) {
				this.open(byte);
			} else if (byte === CLOSE_LIST || byte === CLOSE_OBJECT) {
				this.depth--;
				if (this.isInSpans && this.depth === this.spansAt + 1) {
					lastEnd = this.at + 1;
				} else if (this.isInSpans && this.depth === this.spansAt) {
					this.parse(lastEnd);
					lastEnd = -1;
					this.isInSpans = false;
					this.from = this.at;
				}
			} else if (byte === COMMA) {
				this.isSpansKey = false;
			}
			this.at++;
		}
		this.parse(lastEnd);
	}

	private open(byte: number): void {
		if (byte === OPEN_LIST && this.isSpansKey && this.depth === this.spansAt) {
			this.isInSpans = true;
			this.lists++;
			this.around.push(this.bytes.subarray(this.from, this.at + 1));
			this.from = this.at + 1;
		}
		this.isSpansKey = false;
		this.depth++;
	}

	/* To the end of the text, or of what has come. */
	private passText(): void {
		const { bytes } = this;
		let { at } = this;
		for (; at < bytes.length; at++) {
			if (this.isEscaped) {
				this.isEscaped = false;
			} else if (bytes[at] === BACKSLASH) {
				this.isEscaped = true;
			} else if (bytes[at] === QUOTE) {
				this.isInText = false;
				this.isSpansKey = this.depth === this.spansAt && this.isSpansText(at);
				at++;
				break;
			}
		}
		this.at = at;
	}

	private isSpansText(end: number): boolean {
		const { bytes, textFrom } = this;
		return end - textFrom === SPANS.length - 1 && SPANS.every((letter, i) => bytes[textFrom + i] === letter);
	}

	private parse(end: number): void {
		if (end < 0) {
			return;
		}
		const text = new TextDecoder().decode(this.bytes.subarray(this.from, end));
		this.from = end;
		// Behind the last batch there is a comma.
		this.onSpans(this.lists, JSON.parse(`[${text.replace(/^\s*,/, '')}]`) as Span[]);
	}
}

const PATIENCE_MS = 12;

/* Returns when the browser has done what it has to do between two tasks. */
export function nextTask(): Promise<void> {
	return new Promise((resolve) => {
		const { port1, port2 } = new MessageChannel();
		port1.onmessage = () => {
			port1.close();
			resolve();
		};
		port2.postMessage(null);
	});
}

/* Lets the browser draw whenever some milliseconds have passed. */
export class Breaks {
	private since = performance.now();

	/* Whether there was one. */
	async take(): Promise<boolean> {
		if (performance.now() - this.since <= PATIENCE_MS) {
			return false;
		}
		await nextTask();
		this.since = performance.now();
		return true;
	}
}
