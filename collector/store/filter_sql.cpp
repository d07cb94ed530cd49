#include "store/filter_sql.h"

#include <sqlite3.h>

#include <unordered_set>

#include "store/request_file.h"

namespace kaq {
namespace {

template <typename... Visitors> struct Overloaded : Visitors... { using Visitors::operator()...; };
template <typename... Visitors> Overloaded(Visitors...) -> Overloaded<Visitors...>;

const char *column_of(NumberField field) {
	switch (field) {
	case NumberField::kStatus:
		return "status";
	case NumberField::kDuration:
		return "duration";
	case NumberField::kCpu:
		return "cpu";
	case NumberField::kMemory:
		return "memory";
	case NumberField::kQueries:
		return "queries";
	case NumberField::kCalls:
		return "calls";
	case NumberField::kSpans:
		return "spans";
	case NumberField::kErrors:
		return "failures";
	case NumberField::kDatabaseTime:
		return "query_time";
	case NumberField::kExternalTime:
		return "external_time";
	}
	return "0";
}

std::string joined_words(const Words &words) {
	std::string text;
	for (const std::string &word : words.words) {
		text += (text.empty() ? "" : "\n") + word;
	}
	return text;
}

class Translator {
public:
	explicit Translator(SQLite::Database &database) : database_(database) {
	}

	void add_range(const TimeRange &range) {
		condition_.text = "start >= ? AND start < ? AND ";
		value(range.from);
		value(range.to);
	}

	void add(const Condition &condition) {
		std::visit(Overloaded{[this](const And &all) { add_list(all.conditions, " AND ", "1"); },
							  [this](const Or &any) { add_list(any.conditions, " OR ", "0"); },
							  [this](const Not &negation) {
								  text("NOT ");
								  add(*negation.condition);
							  },
							  [this](const TextIs &is) { add_text(is); },
							  [this](const NumberIs &is) { add_number(is); },
							  [this](const Words &words) { add_words(words); },
							  [this](const FlagIs &flag) { add_flag(flag.flag); }},
				   condition.node);
	}

	SqlCondition take() {
		return std::move(condition_);
	}

private:
	void text(const std::string &part) {
		condition_.text += part;
	}

	void value(std::variant<int64_t, std::string> part) {
		condition_.values.push_back(std::move(part));
	}

	void add_list(const std::vector<Condition> &list, const char *between, const char *empty) {
		text("(");
		for (size_t i = 0; i < list.size(); i++) {
			text(i > 0 ? between : "");
			add(list[i]);
		}
		text(list.empty() ? std::string(empty) + ")" : ")");
	}

	/* A text that many requests share. */
	void add_shared(const char *column, NameKind kind, const char *function,
					const std::string &glob) {
		text(std::string("(") + column + " IN (SELECT id FROM names WHERE kind=" +
			 std::to_string(static_cast<int>(kind)) + " AND " + function + "(text, ?)))");
		value(glob);
	}

	/* A text of its own for each request; with an index that is used for whole ones. */
	void add_own(const std::string &column, const std::string &glob) {
		std::optional<std::string> literal = literal_of(glob);
		text(literal && column != "path" ? "(" + column + " = ?)" : "kaq_like(" + column + ", ?)");
		value(literal && column != "path" ? *literal : glob);
	}

	void add_text(const TextIs &is) {
		switch (is.field) {
		case TextField::kApplication:
			return add_shared("application", NameKind::kApplication, "kaq_like", is.glob);
		case TextField::kName:
			return add_shared("name", NameKind::kName, "kaq_like", is.glob);
		case TextField::kHost:
			return add_shared("host", NameKind::kHost, "kaq_like", is.glob);
		case TextField::kMethod:
			return add_shared("method", NameKind::kMethod, "kaq_like", is.glob);
		case TextField::kVerdict:
			return add_shared("kinds", NameKind::kFindings, "kaq_any_like", is.glob);
		case TextField::kCall:
			return add_sets(texts_like(TextKind::kCallHost, is.glob));
		case TextField::kPath:
			return add_own("path", is.glob);
		case TextField::kTraceId:
			return add_own("trace", is.glob);
		case TextField::kId:
			return add_own("id", is.glob);
		}
	}

	void add_number(const NumberIs &is) {
		text(std::string("(") + column_of(is.field) + " BETWEEN ? AND ?)");
		value(is.least);
		value(is.most);
	}

	void add_flag(Flag flag) {
		text(flag == Flag::kFailed ? "((flags & " + std::to_string(kFlagFailed) + ") != 0)"
			 : flag == Flag::kWeb  ? "((flags & " + std::to_string(kFlagWeb) + ") != 0)"
								   : "((flags & " + std::to_string(kFlagWeb) + ") = 0)");
	}

	std::unordered_set<int64_t> texts_with(const Words &words) {
		bool is_anywhere = words.field == WordField::kAnywhere;
		SQLite::Statement find(database_,
							   std::string("SELECT i.rowid FROM texts_index i JOIN "
										   "texts t ON t.id = i.rowid WHERE "
										   "texts_index MATCH ?") +
								   (is_anywhere ? " AND t.kind <> ?" : " AND t.kind = ?"));
		find.bind(1, fts_query(words));
		find.bind(2, static_cast<int>(is_anywhere                            ? TextKind::kCallHost
									  : words.field == WordField::kStatement ? TextKind::kStatement
									  : words.field == WordField::kFunction  ? TextKind::kFunction
																			 : TextKind::kFailure));
		return numbers_of(find);
	}

	std::unordered_set<int64_t> texts_like(TextKind kind, const std::string &glob) {
		SQLite::Statement find(database_,
							   "SELECT id FROM texts WHERE kind = ? AND kaq_like(text, ?)");
		find.bind(1, static_cast<int>(kind));
		find.bind(2, glob);
		return numbers_of(find);
	}

	static std::unordered_set<int64_t> numbers_of(SQLite::Statement &rows) {
		std::unordered_set<int64_t> numbers;
		while (rows.executeStep()) {
			numbers.insert(rows.getColumn(0).getInt64());
		}
		return numbers;
	}

	/* Requests with one of these texts. */
	void add_sets(const std::unordered_set<int64_t> &texts) {
		text("(texts IN (SELECT value FROM json_each(?)))");
		value(sets_with(texts));
	}

	/* Numbers of the sets that have one of these texts, as a list of JSON. */
	std::string sets_with(const std::unordered_set<int64_t> &texts) {
		std::string list = "[";
		SQLite::Statement sets(database_, "SELECT id, members FROM text_sets");
		while (!texts.empty() && sets.executeStep()) {
			SQLite::Column members = sets.getColumn(1);
			for (int64_t id : text_set_from_bytes({static_cast<const char *>(members.getBlob()),
												   static_cast<size_t>(members.getBytes())})) {
				if (texts.count(id) > 0) {
					list += (list.size() > 1 ? "," : "") + sets.getColumn(0).getString();
					break;
				}
			}
		}
		return list + "]";
	}

	void add_words(const Words &words) {
		text("(texts IN (SELECT value FROM json_each(?))");
		value(sets_with(texts_with(words)));
		if (words.field == WordField::kAnywhere) {
			std::string arguments = words.is_prefix ? ", ?, 1)" : ", ?, 0)";
			text(" OR kaq_has_words(path" + arguments);
			value(joined_words(words));
			text(" OR name IN (SELECT id FROM names WHERE kind=" +
				 std::to_string(static_cast<int>(NameKind::kName)) + " AND kaq_has_words(text" +
				 arguments + ")");
			value(joined_words(words));
		}
		text(")");
	}

	SQLite::Database &database_;
	SqlCondition condition_;
};

std::string_view text_of(sqlite3_value *value) {
	const auto *text = reinterpret_cast<const char *>(sqlite3_value_text(value));
	return {text ? text : "", static_cast<size_t>(sqlite3_value_bytes(value))};
}

std::vector<std::string> split(std::string_view text, char separator) {
	std::vector<std::string> parts;
	while (!text.empty()) {
		size_t end = text.find(separator);
		parts.emplace_back(text.substr(0, end));
		text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
	}
	return parts;
}

void sql_like(sqlite3_context *context, int, sqlite3_value **arguments) {
	sqlite3_result_int(context, is_like(text_of(arguments[0]), text_of(arguments[1])));
}

void sql_any_like(sqlite3_context *context, int, sqlite3_value **arguments) {
	std::string_view glob = text_of(arguments[1]);
	bool is_found = false;
	for (const std::string &word : split(text_of(arguments[0]), ' ')) {
		is_found = is_found || is_like(word, glob);
	}
	sqlite3_result_int(context, is_found);
}

void sql_has_words(sqlite3_context *context, int, sqlite3_value **arguments) {
	Words words;
	words.words = split(text_of(arguments[1]), '\n');
	words.is_prefix = sqlite3_value_int(arguments[2]) != 0;
	sqlite3_result_int(context, has_words(text_of(arguments[0]), words));
}

} // namespace

void SqlCondition::bind(SQLite::Statement &statement, int first) const {
	for (const auto &value : values) {
		if (const auto *number = std::get_if<int64_t>(&value)) {
			statement.bind(first, *number);
		} else {
			statement.bindNoCopy(first, std::get<std::string>(value));
		}
		first++;
	}
}

SqlCondition to_sql(const Filter &filter, SQLite::Database &database) {
	Translator translator(database);
	translator.add_range(filter.range);
	translator.add(filter.condition);
	return translator.take();
}

void add_sql_functions(SQLite::Database &database) {
	database.createFunction("kaq_like", 2, true, nullptr, sql_like);
	database.createFunction("kaq_any_like", 2, true, nullptr, sql_any_like);
	database.createFunction("kaq_has_words", 3, true, nullptr, sql_has_words);
}

} // namespace kaq
