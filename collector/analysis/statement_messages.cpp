#include "analysis/statement_messages.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "analysis/sql_text.h"

namespace kaq {
namespace {

constexpr size_t kNowhere = std::string_view::npos;

struct Pair {
	std::string_view first;
	std::string_view second;
};

/* What statements begin with, and what has to follow somewhere. */
constexpr std::array<Pair, 5> kStatements = {{{"SELECT ", "FROM "},
											  {"INSERT ", "INTO "},
											  {"REPLACE ", "INTO "},
											  {"UPDATE ", "SET "},
											  {"DELETE ", "FROM "}}};

/* What stands around a value. */
constexpr std::array<Pair, 6> kValues = {{{" near '", "' at line "},
										  {"Duplicate entry '", "' for key "},
										  {" value: '", "' for column "},
										  {")=(", ") "},
										  {"Failing row contains (", ")."},
										  {" with params [", "]:"}}};

std::string upper(std::string_view text) {
	std::string result(text);
	for (char &character : result) {
		character = static_cast<char>(toupper(static_cast<unsigned char>(character)));
	}
	return result;
}

/* In small letters they are words of any sentence, unless something introduces them. */
bool is_introduced(std::string_view message, size_t at) {
	bool is_capital = isupper(static_cast<unsigned char>(message[at])) != 0;
	size_t before = at == 0 ? kNowhere : message.find_last_not_of(' ', at - 1);
	bool is_first = before == kNowhere;
	bool has_sign = !is_first && std::string_view("'\"(:`[").find(message[before]) != kNowhere;
	bool is_within_word = at > 0 && isalnum(static_cast<unsigned char>(message[at - 1])) != 0;
	return !is_within_word && (is_first || has_sign || is_capital);
}

size_t statement_begin(std::string_view message) {
	std::string capitals = upper(message);
	size_t begin = kNowhere;
	for (const Pair &each : kStatements) {
		size_t second = capitals.rfind(each.second);
		for (size_t at = capitals.find(each.first); at < begin && second != kNowhere && at < second;
			 at = capitals.find(each.first, at + 1)) {
			if (is_introduced(message, at)) {
				begin = at;
			}
		}
	}
	return begin;
}

/* Some libraries put values into the statement without quotes, and say "SQL:" before it. */
size_t first_value(std::string_view statement) {
	std::string capitals = upper(statement);
	size_t first = kNowhere;
	for (std::string_view each : {" VALUES ", " WHERE ", " SET ", " LIMIT "}) {
		size_t at = capitals.find(each);
		first = std::min(first, at == kNowhere ? kNowhere : at + each.size());
	}
	return std::min(first, statement.size());
}

/* The message with its statement's literals left out. */
bool strip_statement(std::string &message) {
	size_t begin = statement_begin(message);
	if (begin == kNowhere) {
		return false;
	}
	constexpr std::string_view kSql = "SQL: ";
	size_t end = std::min(
		{message.find("\nStack trace:", begin), message.find("\n#0 ", begin), message.size()});
	std::string_view statement = std::string_view(message).substr(begin, end - begin);
	bool has_bare_values =
		begin >= kSql.size() && message.compare(begin - kSql.size(), kSql.size(), kSql) == 0;
	std::string plain = has_bare_values
							? std::string(statement.substr(0, first_value(statement))) + "?"
							: without_literals(statement, false);
	if (plain == statement) {
		return false;
	}
	message.replace(begin, end - begin, plain);
	return true;
}

bool strip_values(std::string &message) {
	bool has_any = false;
	for (const Pair &each : kValues) {
		size_t begin = message.find(each.first);
		size_t value = begin == kNowhere ? kNowhere : begin + each.first.size();
		size_t end = value == kNowhere ? kNowhere : message.rfind(each.second);
		if (end != kNowhere && end > value) {
			message.replace(value, end - value, "?");
			has_any = true;
		}
	}
	return has_any;
}

} // namespace

bool without_quoted_values(std::string_view message, std::string &cleaned) {
	std::string text(message);
	bool has_values = strip_values(text);
	bool has_statement = strip_statement(text);
	if (has_values || has_statement) {
		cleaned = std::move(text);
	}
	return has_values || has_statement;
}

} // namespace kaq
