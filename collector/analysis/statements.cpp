#include "analysis/statements.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <unordered_map>

#include "analysis/layers.h"
#include "analysis/sql_text.h"

namespace kaq {
namespace {

std::string lower(std::string_view text) {
	std::string result(text);
	for (char &character : result) {
		character = static_cast<char>(tolower(static_cast<unsigned char>(character)));
	}
	return result;
}

bool ends_with(std::string_view text, std::string_view end) {
	return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/* The port that need not be named. */
std::string_view usual_port(std::string_view component) {
	if (component == "Postgres" || component == "pgsql") {
		return "5432";
	}
	return component == "MSSQL" || component == "sqlsrv" ? "1433" : "3306";
}

/* "host=db1;dbname=shop", also with blanks between: calls use(key, value). */
template <typename Use> void read_settings(std::string_view text, const Use &use) {
	while (!text.empty()) {
		size_t end = std::min(text.find_first_of("; \t"), text.size());
		std::string_view setting = text.substr(0, end);
		size_t equals = setting.find('=');
		if (equals != std::string_view::npos) {
			std::string_view value = setting.substr(equals + 1);
			if (value.size() > 1 && value.front() == '\'' && value.back() == '\'') {
				value = value.substr(1, value.size() - 2);
			}
			use(lower(setting.substr(0, equals)), value);
		}
		text.remove_prefix(std::min(end + 1, text.size()));
	}
}

Database database_of_settings(std::string_view settings, std::string_view driver) {
	Database found;
	std::string port;
	read_settings(settings, [&](const std::string &key, std::string_view value) {
		if (key == "host" || key == "server" || key == "hostaddr") {
			found.server = value;
		} else if (key == "unix_socket") {
			found.server = "localhost";
		} else if (key == "dbname" || key == "database") {
			found.name = value;
		} else if (key == "port") {
			port = value;
		}
	});
	if (!port.empty() && port != usual_port(driver)) {
		found.server += ":" + port;
	}
	return found;
}

/* The driver's name and a colon stand before the settings. */
Database database_of_source(std::string_view source) {
	size_t colon = source.find(':');
	if (colon == std::string_view::npos) {
		return {};
	}
	std::string_view driver = source.substr(0, colon);
	std::string_view settings = source.substr(colon + 1);
	if (driver.substr(0, 6) == "sqlite") {
		return {"", std::string(settings)};
	}
	return database_of_settings(settings, driver);
}

/* The statement's first word, in lower case. */
std::string first_word(std::string_view statement) {
	size_t begin = 0;
	while (begin < statement.size() && isalpha(static_cast<unsigned char>(statement[begin])) == 0) {
		begin++;
	}
	size_t end = begin;
	while (end < statement.size() && isalpha(static_cast<unsigned char>(statement[end])) != 0) {
		end++;
	}
	return lower(statement.substr(begin, end - begin));
}

template <size_t count>
bool is_one_of(std::string_view word, const std::array<std::string_view, count> &words) {
	return std::find(words.begin(), words.end(), word) != words.end();
}

/* What a component has prepared last, and whether it is known which of several is meant. */
struct Prepared {
	int32_t span = -1;
	uint32_t text = 0;
	bool has_places = false;
	bool is_unused = false;
	bool is_ambiguous = false;
};

class Reader {
public:
	explicit Reader(const Transaction &transaction)
		: spans_(transaction.spans), callers_(callers_of(transaction.spans)) {
		found_.databases.emplace_back();
	}

	Statements read() {
		for (size_t i = 0; i < spans_.size(); i++) {
			take(static_cast<int32_t>(i), spans_[i]);
		}
		for (const auto &entry : by_caller_) {
			add_unused(entry.second);
		}
		std::sort(
			found_.unused.begin(), found_.unused.end(),
			[](const Execution &one, const Execution &other) { return one.span < other.span; });
		return std::move(found_);
	}

private:
	void take(int32_t index, const Span &span) {
		switch (role_of(span)) {
		case StatementRole::kConnect:
			connect(span.component, database_of(span));
			break;
		case StatementRole::kSelectDatabase:
			select_database(span);
			break;
		case StatementRole::kPrepare:
			prepare(index, span);
			break;
		case StatementRole::kExecute:
			execute(index, span);
			break;
		case StatementRole::kQuery:
			found_.executions.push_back(made_of(index, span));
			break;
		case StatementRole::kNone:
			break;
		}
	}

	/* Where a component's connections lead. */
	struct Connections {
		std::optional<Database> first;
		bool is_one = true;   /* or not all of them lead to one place */
		uint32_t current = 0; /* among the databases */
	};

	static bool is_same(const Database &one, const Database &other) {
		return one.server == other.server && one.name == other.name;
	}

	void connect(std::string_view component, const Database &database) {
		Connections &connections = connections_[component];
		if (!connections.first) {
			connections.first = database;
		}
		connections.is_one = connections.is_one && is_same(*connections.first, database);
		use_database(connections.current, database);
	}

	void use_database(uint32_t &current, const Database &database) {
		if (database.server.empty() && database.name.empty()) {
			return;
		}
		for (size_t i = 0; i < found_.databases.size(); i++) {
			if (is_same(found_.databases[i], database)) {
				current = static_cast<uint32_t>(i);
				return;
			}
		}
		if (found_.databases.size() < kMostDatabases) {
			current = static_cast<uint32_t>(found_.databases.size());
			found_.databases.push_back(database);
		}
	}

	void select_database(const Span &span) {
		uint32_t &current = connections_[span.component].current;
		Database database = found_.databases[current];
		database.name = span.database;
		use_database(current, database);
	}

	void prepare(int32_t index, const Span &span) {
		Execution made = made_of(index, span);
		Prepared next = {index, made.text, made.has_places, true, false};
		Prepared &under_caller = by_caller_[{span.component, callers_[at(index)]}];
		next.is_ambiguous = under_caller.is_unused && under_caller.text != next.text;
		add_unused(under_caller);
		under_caller = next;
		Prepared &last = last_[span.component];
		next.is_ambiguous = last.is_unused && last.text != next.text;
		last = next;
	}

	void execute(int32_t index, const Span &span) {
		auto known = by_caller_.find({span.component, callers_[at(index)]});
		auto last = last_.find(span.component);
		Execution made;
		made.span = index;
		made.database = connections_[span.component].current;
		made.is_database_sure = connections_[span.component].is_one;
		made.has_places = true;
		if (known != by_caller_.end()) {
			use(made, known->second);
		} else if (last != last_.end()) {
			use(made, last->second);
		} else {
			made.text = text_index(kUnknownStatement);
		}
		found_.executions.push_back(made);
	}

	/* The same preparation may be known by its caller and as the last one. */
	void use(Execution &made, Prepared &prepared) {
		made.text = prepared.is_ambiguous ? text_index(kUnknownStatement) : prepared.text;
		made.has_places = prepared.is_ambiguous || prepared.has_places;
		made.source = prepared.is_ambiguous ? -1 : prepared.span;
		if (!prepared.is_unused) {
			return;
		}
		made.prepared = prepared.span;
		int32_t span = prepared.span;
		const Span &preparing = spans_[at(span)];
		for (Prepared *same : {&by_caller_[{preparing.component, callers_[at(span)]}],
							   &last_[preparing.component]}) {
			same->is_unused = same->is_unused && same->span != span;
		}
	}

	void add_unused(const Prepared &prepared) {
		if (prepared.is_unused) {
			Execution left;
			left.span = prepared.span;
			left.source = prepared.span;
			left.text = prepared.text;
			left.database = connections_[spans_[at(prepared.span)].component].current;
			left.has_places = prepared.has_places;
			found_.unused.push_back(left);
		}
	}

	Execution made_of(int32_t index, const Span &span) {
		Execution made;
		made.span = index;
		made.source = index;
		const Text &text = text_of(shortened(span.query, kLongestStatement));
		made.text = text.index;
		made.has_places = text.has_places && span.values == 0;
		made.database = connections_[span.component].current;
		made.is_database_sure = connections_[span.component].is_one;
		return made;
	}

	struct Text {
		uint32_t index = 0;
		bool has_places = false;
	};

	/* The texts of a loop are few, and often the very same. */
	const Text &text_of(std::string_view raw) {
		auto known = by_raw_.find(raw);
		if (known == by_raw_.end()) {
			Text text = {text_index(without_literals(raw, false)), has_places(raw)};
			known = by_raw_.emplace(raw, text).first;
		}
		return known->second;
	}

	uint32_t text_index(std::string_view text) {
		auto entry = by_text_.emplace(std::string(text), found_.texts.size());
		if (entry.second) {
			found_.texts.emplace_back(text);
		}
		return static_cast<uint32_t>(entry.first->second);
	}

	static size_t at(int32_t index) {
		return static_cast<size_t>(index);
	}

	struct CallerHash {
		size_t operator()(const std::pair<std::string_view, int32_t> &key) const {
			return std::hash<std::string_view>()(key.first) * 31 + std::hash<int32_t>()(key.second);
		}
	};

	static constexpr size_t kMostDatabases = 256;

	const std::vector<Span> &spans_;
	const std::vector<int32_t> callers_;
	Statements found_;
	std::unordered_map<std::string_view, Connections> connections_; /* by component */
	std::unordered_map<std::string_view, Prepared> last_;           /* by component */
	std::unordered_map<std::pair<std::string_view, int32_t>, Prepared, CallerHash> by_caller_;
	std::unordered_map<std::string_view, Text> by_raw_;
	std::unordered_map<std::string, size_t> by_text_;
};

} // namespace

StatementRole role_of(const Span &span) {
	if (layer_of(span) != Layer::kDatabase) {
		return StatementRole::kNone;
	}
	std::string_view name = span.name;
	if (!span.query.empty()) {
		/* These are calls to another system, and yet run nothing. */
		bool only_prepares = name == "oci_parse" || ends_with(name, "BatchStatement::add") ||
							 ends_with(name, "SimpleStatement::__construct");
		return span.is_external && !only_prepares ? StatementRole::kQuery : StatementRole::kPrepare;
	}
	if (ends_with(name, "execute") || ends_with(name, "executeAsync")) {
		return StatementRole::kExecute;
	}
	if (!span.host.empty()) {
		return StatementRole::kConnect;
	}
	return span.database.empty() ? StatementRole::kNone : StatementRole::kSelectDatabase;
}

bool is_execution(const Span &span) {
	StatementRole role = role_of(span);
	return role == StatementRole::kQuery || role == StatementRole::kExecute;
}

Database database_of(const Span &connecting) {
	std::string_view host = shortened(connecting.host, 1024);
	Database found;
	if (connecting.component == "PDO") {
		found = database_of_source(host);
	} else if (host.find('=') != std::string_view::npos) {
		found = database_of_settings(host, connecting.component);
	} else {
		found.server = host.substr(0, 2) == "p:" ? host.substr(2) : host;
		std::string port = std::to_string(connecting.port);
		if (connecting.port > 0 && port != usual_port(connecting.component)) {
			found.server += ":" + port;
		}
	}
	found.server = lower(shortened(found.server, 256));
	if (!connecting.database.empty()) {
		found.name = connecting.database;
	}
	found.name = shortened(found.name, 256);
	return found;
}

Statements statements_of(const Transaction &transaction) {
	return Reader(transaction).read();
}

std::string_view shortened(std::string_view text, size_t bytes) {
	if (text.size() <= bytes) {
		return text;
	}
	while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xC0) == 0x80) {
		bytes--;
	}
	return text.substr(0, bytes);
}

bool is_reading(std::string_view statement) {
	static constexpr std::array<std::string_view, 5> kWords = {"select", "show", "describe",
															   "explain", "pragma"};
	return is_one_of(first_word(statement), kWords);
}

bool is_control(std::string_view statement) {
	static constexpr std::array<std::string_view, 9> kWords = {
		"begin", "start", "commit", "rollback", "savepoint", "release", "set", "use", "end"};
	return is_one_of(first_word(statement), kWords);
}

} // namespace kaq
