#include "export/otlp_facts.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "analysis/failure_group.h"
#include "analysis/http_call.h"
#include "analysis/layers.h"
#include "analysis/sql_text.h"

namespace kaq {
namespace {

using Names = std::pair<std::string_view, std::string_view>;

constexpr size_t kMostFrames = 64;
constexpr size_t kLongestHost = 256;
constexpr std::string_view kOther = "_OTHER";

/* By component, but for PDO's. */
constexpr std::array<Names, 9> kSystems = {{
	{"MySQLi", "mysql"},
	{"MySQL", "mysql"},
	{"Postgres", "postgresql"},
	{"Oracle", "oracle.db"},
	{"MSSQL", "microsoft.sql_server"},
	{"Cassandra", "cassandra"},
	{"Redis", "redis"},
	{"Memcached", "memcached"},
	{"Memcache", "memcached"},
}};

constexpr std::array<Names, 8> kDrivers = {{
	{"mysql", "mysql"},
	{"pgsql", "postgresql"},
	{"sqlite", "sqlite"},
	{"sqlite2", "sqlite"},
	{"oci", "oracle.db"},
	{"sqlsrv", "microsoft.sql_server"},
	{"dblib", "microsoft.sql_server"},
	{"firebird", "firebirdsql"},
}};

template <size_t size>
std::string_view found_in(const std::array<Names, size> &names, std::string_view name) {
	auto found =
		std::find_if(names.begin(), names.end(), [name](Names each) { return each.first == name; });
	return found == names.end() ? std::string_view() : found->second;
}

bool is_letter(char character) {
	return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
}

char upper(char character) {
	return static_cast<char>(character >= 'a' && character <= 'z' ? character & ~0x20 : character);
}

/* "SELECT" of a statement, "GET" of "Redis::get". */
std::string operation_of(std::string_view text) {
	size_t colons = text.rfind("::");
	text.remove_prefix(colons == std::string_view::npos ? 0 : colons + 2);
	while (!text.empty() && !is_letter(text.front())) {
		text.remove_prefix(1);
	}
	std::string word;
	for (size_t i = 0; i < text.size() && is_letter(text[i]) && i < 32; i++) {
		word += upper(text[i]);
	}
	return word;
}

std::string stack_text(const std::vector<StackFrame> &stack) {
	std::string text;
	for (size_t i = 0; i < std::min(stack.size(), kMostFrames); i++) {
		const StackFrame &frame = stack[i];
		text += (i == 0 ? "#" : "\n#") + std::to_string(i) + " ";
		if (!frame.file.empty()) {
			text += std::string(frame.file) + "(" + std::to_string(frame.line) + "): ";
		}
		text += std::string(frame.type) + (frame.type.empty() ? "" : "::");
		text += frame.function;
	}
	return text;
}

/* Of a call its answer, else the last exception, or error that ended the request. */
std::string error_type_of(const Span &span, int64_t status, int64_t least, bool is_call) {
	if (status >= least) {
		return std::to_string(status);
	}
	for (auto failure = span.failures.rbegin(); failure != span.failures.rend(); ++failure) {
		bool is_exception = failure->type != "ERROR" && !failure->type.empty();
		if (is_exception || is_serious(*failure)) {
			return std::string(is_exception ? failure->type : failure->level);
		}
	}
	bool is_unknown = (is_call && status <= 0) || (span.is_failed && span.failures.empty());
	return is_unknown ? std::string(kOther) : std::string();
}

unsigned class_of(const Transaction &transaction, const Span &span) {
	if (&span == &transaction.spans.front()) {
		return transaction.is_web ? kServerSpan : kScriptSpan;
	}
	switch (layer_of(span)) {
	case Layer::kCode:
		return kCodeSpan;
	case Layer::kDatabase:
		return kDatabaseSpan;
	case Layer::kCache:
		return kCacheSpan;
	case Layer::kHttp:
		return is_http_call(span) ? kHttpSpan : kOtherSpan;
	case Layer::kOther:
		break;
	}
	return kOtherSpan;
}

bool is_https(std::string_view url) {
	std::string_view scheme = url.substr(0, 6);
	return scheme.size() == 6 && (scheme[4] | 0x20) == 's' && scheme[5] == ':';
}

} // namespace

void split_server(std::string_view server, std::string &host, int64_t &port) {
	server = shortened(server, kLongestHost);
	size_t colon = server.rfind(':');
	bool is_alone = colon != std::string_view::npos &&
					(server.find(':') == colon || (colon > 0 && server[colon - 1] == ']'));
	int64_t number = 0;
	const char *end = server.data() + server.size();
	if (is_alone && std::from_chars(server.data() + colon + 1, end, number).ptr == end &&
		number > 0 && number <= UINT16_MAX) {
		port = number;
		server = server.substr(0, colon);
	}
	if (server.size() > 2 && server.front() == '[' && server.back() == ']') {
		server = server.substr(1, server.size() - 2);
	}
	host = server;
}

OtlpFacts::OtlpFacts(const Transaction &transaction, bool has_literals)
	: transaction_(transaction), has_literals_(has_literals),
	  statements_(statements_of(transaction)), executions_(transaction.spans.size()) {
	for (const Execution &each : statements_.executions) {
		executions_[static_cast<size_t>(each.span)] = &each;
	}
	find_driver();
}

void OtlpFacts::find_driver() {
	bool is_first = true;
	for (const Span &span : transaction_.spans) {
		if (span.component != "PDO" || role_of(span) != StatementRole::kConnect) {
			continue;
		}
		std::string_view system = found_in(kDrivers, span.host.substr(0, span.host.find(':')));
		if (!is_first && driver_ != system) {
			driver_ = {};
			return;
		}
		is_first = false;
		driver_ = system;
	}
}

SpanFacts OtlpFacts::of(size_t index) const {
	const Span &span = transaction_.spans[index];
	SpanFacts facts{transaction_, span};
	facts.span_class = class_of(transaction_, span);
	facts.stack = stack_text(span.stack);
	bool is_call = facts.span_class == kHttpSpan;
	if ((facts.span_class & kRootSpans) != 0) {
		add_request(facts);
	} else if (is_call) {
		split_server(host_of(span.host), facts.server, facts.port);
		facts.port = facts.port == 0 ? (is_https(span.host) ? 443 : 80) : facts.port;
	} else if (facts.span_class == kDatabaseSpan) {
		add_database(facts, index);
	} else if (span.host.find("://") == std::string_view::npos) {
		split_server(span.host, facts.server, facts.port);
		facts.port = facts.port == 0 ? span.port : facts.port;
	}
	if (facts.span_class == kCacheSpan) {
		facts.system = found_in(kSystems, span.component);
		facts.operation = operation_of(span.name);
	}
	bool is_server = facts.span_class == kServerSpan;
	int64_t status = is_server ? transaction_.status : is_call ? span.status : 0;
	facts.error_type = error_type_of(span, status, is_call ? 400 : 500, is_call);
	facts.is_failed = !facts.error_type.empty();
	return facts;
}

void OtlpFacts::add_request(SpanFacts &facts) const {
	facts.method = known_method(transaction_.method);
	facts.parent = valid_span_id(facts.span.parent_id) ? std::string_view() : facts.span.parent_id;
	if (transaction_.is_web) {
		split_server(transaction_.host, facts.server, facts.port);
	}
}

void OtlpFacts::add_statement(SpanFacts &facts, std::string_view text, bool is_obfuscated) const {
	if (text.empty() || text == kUnknownStatement) {
		return;
	}
	facts.operation = operation_of(text);
	std::string table = first_table(text);
	facts.summary = facts.operation + (table.empty() ? "" : " ") + table;
	if (is_obfuscated || has_literals_) {
		facts.statement = text;
	}
}

void OtlpFacts::add_database(SpanFacts &facts, size_t index) const {
	const Span &span = facts.span;
	facts.system = span.component == "PDO" ? driver_ : found_in(kSystems, span.component);
	if (facts.system.empty()) {
		facts.system = "other_sql";
	}
	Database database;
	if (const Execution *execution = executions_[index]) {
		bool has_own = has_literals_ && !span.query.empty();
		add_statement(facts,
					  has_own ? shortened(span.query, kLongestStatement)
							  : std::string_view(statements_.texts[execution->text]),
					  !has_own);
		if (execution->is_database_sure) {
			database = statements_.databases[execution->database];
		}
	} else if (role_of(span) == StatementRole::kConnect) {
		database = database_of(span);
		facts.name_space = span.database;
	} else {
		facts.name_space = span.database;
	}
	split_server(database.server, facts.server, facts.port);
	if (executions_[index] != nullptr && executions_[index]->is_database_sure) {
		facts.name_space = statements_.databases[executions_[index]->database].name;
	}
}

} // namespace kaq
