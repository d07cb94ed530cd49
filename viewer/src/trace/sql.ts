/* Statements as people read them: on several lines, with the parts told apart. No token is changed. */

export type TokenKind = 'keyword' | 'word' | 'text' | 'number' | 'comment' | 'parameter' | 'sign' | 'space';

export interface Token {
	readonly kind: TokenKind;
	readonly text: string;
}

const KEYWORDS = new Set(
	`add all alter and any as asc between begin by case check column commit constraint create cross current_date
	current_time current_timestamp database default delete desc describe distinct drop else end escape except exists
	explain false fetch first following for foreign from full group having if ignore in index inner insert intersect
	interval into is join key last lateral left like limit lock natural next not null of offset on only or order outer
	over partition preceding primary procedure references regexp rename replace returning right rollback row rows
	savepoint select set share show straight_join table temporary then to transaction trigger true truncate unbounded
	union unique update use using values view when where window with`.split(/\s+/),
);

/* Of several databases, those that begin alike by their length. None takes the begin of a comment. */
const OPERATORS = [
	String.raw`!~~?\*?|!=|!!`,
	String.raw`~~\*?|~\*`,
	String.raw`@@@?|@>|@\?`,
	String.raw`->>?|-\|-(?!-)`,
	String.raw`#>>?|#-`,
	String.raw`<->|<#>|<=>|<\+>|<<[=%|]?|<[=>@%]`,
	String.raw`>>=?|>=`,
	String.raw`=[=>]`,
	String.raw`%>>?`,
	String.raw`\|\|\/(?!\*)|\|\||\|\/(?!\*)|\|>>`,
	String.raw`&[&<>]`,
	String.raw`\^@(?!\w)`,
	'::|:=',
].join('|');

const PATTERN = new RegExp(
	[
		String.raw`(?<space>\s+)`,
		String.raw`(?<comment>--[^\n]*|#(?![>-])[^\n]*|/\*[\s\S]*?(?:\*/|$))`,
		String.raw`(?<text>'(?:[^'\\]|\\[\s\S]|'')*(?:'|$)|"(?:[^"\\]|\\[\s\S]|"")*(?:"|$))`,
		'(?<quoted>`(?:[^`]|``)*(?:`|$))',
		String.raw`(?<number>\b\d+(?:\.\d+)?(?:e[+-]?\d+)?\b|\b0x[0-9a-f]+\b)`,
		// Alone it is an operator, beside values a placeholder.
		String.raw`(?<asked>\?\?[|&]?|(?<=\s)\?[|&](?=\s))`,
		String.raw`(?<parameter>\?|\$\d+|(?<!:):[a-z_]\w*|@@?\w+)`,
		String.raw`(?<word>[\p{L}_][\p{L}\p{N}_$]*)`,
		String.raw`(?<sign>${OPERATORS}|[\s\S])`,
	].join('|'),
	'giuy',
);

export function tokens(sql: string): Token[] {
	const list: Token[] = [];
	PATTERN.lastIndex = 0;
	for (let match = PATTERN.exec(sql); match; match = PATTERN.exec(sql)) {
		const text = match[0];
		const groups = match.groups ?? {};
		if (groups.word !== undefined) {
			list.push({ kind: KEYWORDS.has(text.toLowerCase()) ? 'keyword' : 'word', text });
		} else {
			const kind = (['space', 'comment', 'text', 'number', 'parameter'] as const).find((each) => groups[each] !== undefined);
			list.push({ kind: kind ?? (groups.quoted === undefined ? 'sign' : 'word'), text });
		}
	}
	return list;
}

/* Begin a line of their own. */
const CLAUSES = new Set(['select', 'from', 'where', 'group', 'order', 'having', 'limit', 'union', 'except', 'intersect', 'values', 'set', 'returning', 'window', 'insert', 'update', 'delete']);
const JOINS = new Set(['left', 'right', 'inner', 'outer', 'cross', 'full', 'natural', 'join', 'straight_join']);
/* Nothing stands between them and what follows. */
const TIGHT = new Set(['(', '.', '::']);
const LONG_LIST = 72;

interface Level {
	readonly indent: number;
	/* A subquery, or a plain pair of brackets. */
	readonly isQuery: boolean;
}

class Formatter {
	private readonly out: Token[] = [];
	private readonly levels: Level[] = [{ indent: 0, isQuery: true }];
	private before = '';
	private isBetween = false;
	private clause = '';

	constructor(private readonly list: readonly Token[]) {}

	format(): Token[] {
		const { list } = this;
		list.forEach((token, i) => {
			const word = token.kind === 'keyword' ? token.text.toLowerCase() : '';
			if (token.kind === 'sign') {
				this.sign(token, i);
			} else {
				this.part(token, word, i);
			}
			this.before = word || token.text;
		});
		return this.out;
	}

	private get level(): Level {
		return this.levels.at(-1) ?? { indent: 0, isQuery: true };
	}

	private part(token: Token, word: string, at: number): void {
		const { level } = this;
		if (level.isQuery && this.beginsLine(word, at)) {
			this.line(word === 'and' || word === 'or' ? level.indent + 1 : level.indent);
		}
		if (word === 'between') {
			this.isBetween = true;
		} else if (word === 'and' && this.isBetween) {
			this.isBetween = false;
		}
		if (CLAUSES.has(word)) {
			this.clause = word;
		}
		this.space();
		this.out.push(token);
		if (token.kind === 'comment' && !token.text.startsWith('/*')) {
			this.line(level.indent);
		}
	}

	private beginsLine(word: string, at: number): boolean {
		if (this.out.length === 0) {
			return false;
		}
		if (word === 'and') {
			return !this.isBetween;
		}
		if (JOINS.has(word)) {
			// `LEFT(` is a function.
			return !JOINS.has(this.before) && this.list[at + 1]?.text !== '(';
		}
		if (word === 'or') {
			return true;
		}
		if (word === 'update' || word === 'delete' || word === 'insert' || word === 'set') {
			return !['for', 'on', 'key', 'character'].includes(this.before);
		}
		return CLAUSES.has(word) && !(word === 'from' && this.before === 'distinct') && !(word === 'values' && this.list[at + 1]?.text === '(' && this.clause === 'update');
	}

	private sign(token: Token, at: number): void {
		const { text } = token;
		if (text === '(') {
			const next = this.list[at + 1]?.text.toLowerCase();
			const isQuery = next === 'select' || next === 'with';
			const isCall = this.isCall(at);
			if (!isCall) {
				this.space();
			}
			this.out.push(token);
			this.levels.push({ indent: this.level.indent + (isQuery ? 2 : 0), isQuery });
			if (isQuery) {
				this.line(this.level.indent);
			}
		} else if (text === ')') {
			const level = this.levels.length > 1 ? this.levels.pop() : undefined;
			if (level?.isQuery) {
				this.line(this.level.indent);
			}
			this.out.push(token);
		} else if (text === ',') {
			this.out.push(token);
			if (this.level.isQuery && this.isLongList()) {
				this.line(this.level.indent + 1);
			}
		} else {
			if (text !== '.' && text !== ';' && text !== '::') {
				this.space();
			}
			this.out.push(token);
		}
	}

	private isCall(at: number): boolean {
		const before = this.list[at - 1];
		if (before?.kind === 'word') {
			return this.list[at - 2]?.text.toLowerCase() !== 'into';
		}
		return before?.kind === 'keyword' && ['if', 'left', 'right', 'replace'].includes(this.before);
	}

	/* Of a line that is long already. */
	private isLongList(): boolean {
		let length = 0;
		for (let i = this.out.length; i-- > 0;) {
			const text = this.out[i]?.text ?? '';
			if (text.includes('\n')) {
				break;
			}
			length += text.length;
		}
		return length > LONG_LIST && (this.clause === 'select' || this.clause === 'set' || this.clause === 'values');
	}

	private space(): void {
		const last = this.out.at(-1);
		if (last && last.kind !== 'space' && !TIGHT.has(last.text)) {
			this.out.push({ kind: 'space', text: ' ' });
		}
	}

	private line(indent: number): void {
		if (this.out.at(-1)?.kind === 'space') {
			this.out.pop();
		}
		this.out.push({ kind: 'space', text: `\n${'  '.repeat(indent)}` });
	}
}

/* Of a statement whose tokens are known. */
export function formatted(list: readonly Token[]): Token[] {
	return new Formatter(list.filter((token) => token.kind !== 'space')).format();
}
