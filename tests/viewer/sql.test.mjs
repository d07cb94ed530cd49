/* How statements are laid out, and that nothing of them changes but the space between the parts. */
import assert from 'node:assert/strict';
import test from 'node:test';
import { chance } from './shop.mjs';
import { source } from './source.mjs';

const { tokens, formatted } = await source('trace/sql.ts');

function lines(sql) {
	return formatted(tokens(sql)).map((token) => token.text).join('');
}

const CASES = [
	['SELECT id, name FROM item WHERE id = ? AND price BETWEEN 1 AND 2 OR a = b', 'SELECT id, name\nFROM item\nWHERE id = ?\n  AND price BETWEEN 1 AND 2\n  OR a = b'],
	['select count(*) from a left join b on a.id=b.a group by x order by y desc limit 10', 'select count(*)\nfrom a\nleft join b on a.id = b.a\ngroup by x\norder by y desc\nlimit 10'],
	['SELECT * FROM (SELECT 1 FROM t) s WHERE x IN (1, 2)', 'SELECT *\nFROM (\n    SELECT 1\n    FROM t\n) s\nWHERE x IN (1, 2)'],
	['INSERT INTO t (a, b) VALUES (?, ?)', 'INSERT INTO t (a, b)\nVALUES (?, ?)'],
	['UPDATE t SET a = 1 WHERE b = \'x AND y\'', "UPDATE t\nSET a = 1\nWHERE b = 'x AND y'"],
	["SELECT data->>'a', data #>> '{b}' FROM t WHERE data->'c' @> ?", "SELECT data ->> 'a', data #>> '{b}'\nFROM t\nWHERE data -> 'c' @> ?"],
	['SELECT a # of all\nFROM t', 'SELECT a # of all\nFROM t'],
	['SELECT a FROM t FOR UPDATE', 'SELECT a\nFROM t FOR UPDATE'],
];

test('clauses begin lines', () => {
	for (const [sql, wanted] of CASES) {
		assert.equal(lines(sql), wanted);
	}
});

/* Of several databases; apart from `::` they stand between spaces. */
const OPERATORS = `!~ !~* !~~ !~~* ~ ~* ~~ ~~* @@ @@@ @> <@ @? -> ->> #> #>> #- <-> <#> <=> <+> || || && = == <> != < <= > >= << >> <<= >>= := => & | ^ % * / + -
	%> %>> <% <<% -|- &< &> |>> <<| ?| ?& ?? ??| ??& ^@ ||/ |/`.split(/\s+/);

test('operators are not torn apart', () => {
	for (const operator of OPERATORS) {
		assert.equal(lines(`SELECT a FROM t WHERE a ${operator} b`), `SELECT a\nFROM t\nWHERE a ${operator} b`);
	}
	for (const operator of ['!~*', '~*', '<->', '<=>', '||', '&&', '>=', '<>', '->>', '#>>']) {
		assert.equal(lines(`SELECT a${operator}b`), `SELECT a ${operator} b`);
		assert.equal(lines(`SELECT a${operator}?`), `SELECT a ${operator} ?`);
	}
});

const APART = [
	['SELECT a::int, ?::text[]', 'SELECT a::int, ?::text [ ]'],
	['SELECT a=:b, a>=:b, a||:b', 'SELECT a = :b, a >= :b, a || :b'],
	['SELECT a=@b, @@version, a @@ b', 'SELECT a = @b, @@version, a @@ b'],
	['SELECT ?||?, ?|?, a=-1', 'SELECT ? || ?, ? | ?, a = - 1'],
	['SELECT a||/* b */c, a|/* b */c', 'SELECT a || /* b */ c, a | /* b */ c'],
	['SELECT a<-- b\nc', 'SELECT a < -- b\nc'],
];

test('what stands beside an operator is no part of it', () => {
	for (const [sql, wanted] of APART) {
		assert.equal(lines(sql).replace(/\s+$/, ''), wanted);
	}
});

function bare(list) {
	return list.filter((token) => token.kind !== 'space').map((token) => token.text);
}

const PARTS = ['!~*', '@@', '<->', '?|', '||/', '->>', '#>', '@>', 'SELECT', ' ', 'FROM', '(', ')', ',', "'a''b'", '"q"', '`w`', "'open", '-- c\n', '/* x */', '/* open', '12.5', ':name', '::int', '?', '$1', 'x.y', '=', '<>', '\n', '\\', 'ü', '<script>', '\u202E', ';', 'AND', 'BETWEEN', 'LEFT', 'JOIN', '@v', '0x1f'];

test('no token is lost, changed or moved', () => {
	const random = chance(5);
	for (let i = 0; i < 3000; i++) {
		const sql = Array.from({ length: Math.floor(random() * 14) }, () => PARTS[Math.floor(random() * PARTS.length)]).join(random() < 0.5 ? ' ' : '');
		const list = tokens(sql);
		assert.equal(list.map((token) => token.text).join(''), sql);
		assert.deepEqual(bare(formatted(list)), bare(list));
	}
});

test('parts are told apart', () => {
	const kinds = Object.fromEntries(tokens("SELECT `a`, 'x', 1.5, :p, ? -- c").map((token) => [token.text, token.kind]));
	assert.deepEqual([kinds.SELECT, kinds['`a`'], kinds["'x'"], kinds['1.5'], kinds[':p'], kinds['?'], kinds['-- c']], ['keyword', 'word', 'text', 'number', 'parameter', 'parameter', 'comment']);
});

test('a long text takes no long time', () => {
	const begun = performance.now();
	formatted(tokens(`SELECT ${'a, '.repeat(20000)} b FROM ${'('.repeat(2000)}`));
	tokens("'".padEnd(1e5, 'x'));
	tokens('/*'.repeat(3e4));
	assert.ok(performance.now() - begun < 4000);
});
