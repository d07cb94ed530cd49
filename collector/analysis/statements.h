/*
 * The statements of a request, as its database calls tell them: which text ran, against which
 * server, on whose behalf. No state; any thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/transaction.h"

namespace kaq {

/* What a database call does. kPrepare has a text and runs nothing, kExecute runs a prepared text.
 */
enum class StatementRole { kNone, kConnect, kSelectDatabase, kPrepare, kExecute, kQuery };

StatementRole role_of(const Span &span);

/* Whether a span runs a statement. */
bool is_execution(const Span &span);

/* Which database a connection leads to. */
struct Database {
	std::string server; /* "db1"; "db1:3307" where the port is not the usual one; may be empty */
	std::string name;   /* may be empty */
};

/* Read from a connecting call: host and port, a data source ("mysql:host=db1;dbname=shop"), or a
 * connection string ("host=db1 dbname=shop"). */
Database database_of(const Span &connecting);

/* The longest text of a statement that is looked at; the rest of longer ones is not. */
constexpr size_t kLongestStatement = 65536;

constexpr std::string_view kUnknownStatement = "(prepared statement)";

struct Execution {
	int32_t span = 0;
	int32_t prepared = -1; /* the call that prepared it for this execution; -1: none, or an earlier
							  execution has it */
	int32_t source = -1;   /* the call that told the text; -1: it is not known */
	uint32_t text = 0;     /* index into texts */
	uint32_t database = 0; /* index into databases */
	bool has_places = false;      /* for values that the document does not tell */
	bool is_database_sure = true; /* no other connection was there that it may have used */
};

struct Statements {
	std::vector<Execution> executions; /* in the order in which they began */
	std::vector<Execution> unused;     /* prepared and never executed: `span` prepares */
	std::vector<std::string> texts;    /* without literals, each once */
	std::vector<Database> databases;   /* the first one is unknown */
};

/*
 * A call that executes a prepared statement does not say which. It is taken to be the one that the
 * same component prepared last under the same caller, else last of all; where several were prepared
 * in a row, it is not known which (kUnknownStatement).
 */
Statements statements_of(const Transaction &transaction);

/* At most that many bytes of a text, whole characters. */
std::string_view shortened(std::string_view text, size_t bytes);

/* Whether a text reads, and changes nothing: SELECT, SHOW ... */
bool is_reading(std::string_view statement);

/* Whether a text belongs to a transaction's or a connection's state: BEGIN, COMMIT, SET ... */
bool is_control(std::string_view statement);

} // namespace kaq
