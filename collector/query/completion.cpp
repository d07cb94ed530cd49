#include "query/completion.h"

#include <algorithm>

#include "analysis/finding_kind.h"
#include "query/fields.h"
#include "query/parser.h"
#include "query/scanner.h"

namespace kaq {
namespace {

bool begins_with(std::string_view text, std::string_view beginning) {
	return text.size() >= beginning.size() &&
		   is_same_name(text.substr(0, beginning.size()), beginning);
}

/* Where the term begins that ends at the cursor, and whether it stands in open quotes. */
struct Term {
	size_t begin = 0;
	bool is_quoted = false;
	bool is_first = true;
};

Term term_before(std::string_view text) {
	Term term;
	for (size_t i = 0; i < text.size(); i++) {
		if (term.is_quoted && text[i] == '\\') {
			i++;
		} else if (text[i] == '"') {
			term.is_quoted = !term.is_quoted;
		} else if (!term.is_quoted && (is_blank(text[i]) || text[i] == '(' || text[i] == ')')) {
			std::string_view before = text.substr(term.begin, i - term.begin);
			term.is_first = text[i] == '(' || (term.is_first && before.empty() && text[i] != ')');
			term.begin = i + 1;
		} else if (text[i] == '-' && i == term.begin) {
			term.begin = i + 1;
		}
	}
	return term;
}

void add(Completion &completion, std::string_view written, std::string_view text,
		 std::string_view help) {
	if (begins_with(text, written)) {
		completion.candidates.push_back({std::string(text), std::string(help)});
	}
}

void add_fields(Completion &completion, std::string_view written, bool is_first) {
	for (const QueryField &field : query_fields()) {
		add(completion, written, std::string(field.name) + ":", field.help);
	}
	if (!is_first) {
		add(completion, written, "OR", "one or the other");
	}
	add(completion, written, "NOT", "all but these");
	if (written.empty()) {
		add(completion, written, ">", "took longer: >300ms");
	}
}

void add_numbers(Completion &completion, std::string_view written, NumberField field, Unit unit) {
	if (field == NumberField::kStatus) {
		for (const char *status : {"2xx", "3xx", "4xx", "5xx", "404", "500", "503"}) {
			add(completion, written, status, "");
		}
	}
	if (written.empty()) {
		for (const char *comparison : {">", ">=", "<", "<="}) {
			add(completion, written, comparison, "");
		}
		return;
	}
	char last = written.back();
	if (last < '0' || last > '9') {
		return;
	}
	std::vector<NamedUnit> units = units_of(unit);
	for (auto each = units.rbegin(); each != units.rend(); ++each) {
		if (!each->name.empty()) {
			add(completion, written, std::string(written) + std::string(each->name), "");
		}
	}
}

void add_named(Completion &completion, std::string_view written, SpecialField field) {
	for (const NamedValue &each : named_values(field)) {
		add(completion, written, each.name, each.help);
	}
	if (field == SpecialField::kSince || field == SpecialField::kUntil) {
		for (const char *time : {"15m", "1h", "6h", "1d", "7d", "today"}) {
			add(completion, written, time, "");
		}
	}
}

void add_values(Completion &completion, std::string_view written, const QueryField &field) {
	if (const auto *text = std::get_if<TextField>(&field.target)) {
		completion.field = *text;
		completion.written = std::string(written);
		if (*text == TextField::kVerdict) {
			for (std::string_view kind : finding_names()) {
				add(completion, written, kind, "");
			}
		}
		if (*text == TextField::kMethod) {
			for (const char *method :
				 {"GET", "POST", "PUT", "PATCH", "DELETE", "HEAD", "OPTIONS"}) {
				add(completion, written, method, "");
			}
		}
	} else if (const auto *number = std::get_if<NumberField>(&field.target)) {
		add_numbers(completion, written, *number, field.unit);
	} else if (const auto *special = std::get_if<SpecialField>(&field.target)) {
		add_named(completion, written, *special);
	}
}

} // namespace

Completion complete_query(std::string_view text, size_t cursor) {
	Completion completion;
	cursor = std::min(cursor, text.size());
	std::string_view before = text.substr(0, cursor);
	Term term = term_before(before);
	Scanner rest(text.substr(cursor));
	completion.begin = completion.end = cursor;
	if (text.size() > kLongestQuery || term.is_quoted) {
		return completion;
	}
	rest.take_value();
	completion.begin = term.begin;
	completion.end = cursor + rest.at();
	std::string_view written = before.substr(term.begin);
	Scanner scanner(written);
	std::optional<std::string_view> name = scanner.take_field_name(false);
	std::optional<std::string_view> compared = name ? name : scanner.take_field_name(true);
	const QueryField *field = compared ? find_field(*compared) : nullptr;
	if (!compared && !written.empty() && (written[0] == '<' || written[0] == '>')) {
		field = find_field("duration");
	}
	if (field) {
		completion.begin += scanner.at();
		add_values(completion, written.substr(scanner.at()), *field);
	} else if (!compared) {
		add_fields(completion, written, term.is_first);
	}
	return completion;
}

} // namespace kaq
