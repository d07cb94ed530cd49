#include <algorithm>

#include "query/fields.h"
#include "query/parser.h"
#include "query/values.h"

namespace kaq {
namespace {

/* How tightly the place holds in which a condition stands. */
enum class Place { kTop, kAlternative, kJoined, kNegated };

template <typename Target> const QueryField &field_of(Target target) {
	const std::vector<QueryField> &fields = query_fields();
	return *std::find_if(fields.begin(), fields.end(), [target](const QueryField &field) {
		const auto *found = std::get_if<Target>(&field.target);
		return found && *found == target;
	});
}

/* In quotes, with what is a quote or a backslash escaped. */
std::string in_quotes(std::string_view literal) {
	std::string text = "\"";
	for (char character : literal) {
		if (character == '"' || character == '\\') {
			text += '\\';
		}
		text += character;
	}
	return text + '"';
}

bool needs_quotes(std::string_view literal) {
	/* A name with "::" or "://" behind it is no field's. */
	return literal.empty() || literal[0] == ':' || literal.substr(0, 2) == "//" ||
		   literal.find_first_of(" \t\r\n\"\\()*?") != std::string_view::npos;
}

/* Literal pieces in quotes where they need it, with the wildcards between them. */
std::string value_text(std::string_view glob) {
	if (std::optional<std::string> literal = literal_of(glob)) {
		return needs_quotes(*literal) ? in_quotes(*literal) : *literal;
	}
	std::string text;
	std::string literal;
	auto end_literal = [&text, &literal] {
		if (!literal.empty()) {
			text += needs_quotes(literal) ? in_quotes(literal) : literal;
			literal.clear();
		}
	};
	for (size_t i = 0; i < glob.size(); i++) {
		if (glob[i] == '*' || glob[i] == '?') {
			end_literal();
			text += glob[i];
		} else {
			literal += glob[i] == '\\' && i + 1 < glob.size() ? glob[++i] : glob[i];
		}
	}
	end_literal();
	return text;
}

std::string phrase_text(const Words &words) {
	std::string text;
	for (const std::string &word : words.words) {
		text += text.empty() ? word : " " + word;
	}
	bool is_keyword =
		is_same_name(text, "or") || is_same_name(text, "and") || is_same_name(text, "not");
	text = is_keyword || needs_quotes(text) ? in_quotes(text) : text;
	return words.is_prefix ? text + "*" : text;
}

class Writer {
public:
	explicit Writer(Place place) : place_(place) {
	}

	std::string operator()(const And &node) const {
		return in_parentheses(list(node.conditions, " ", Place::kJoined),
							  place_ == Place::kJoined || place_ == Place::kNegated);
	}
	std::string operator()(const Or &node) const {
		return in_parentheses(list(node.conditions, " OR ", Place::kAlternative),
							  place_ != Place::kTop);
	}
	std::string operator()(const Not &node) const {
		return "-" + std::visit(Writer(Place::kNegated), node.condition->node);
	}
	std::string operator()(const TextIs &node) const {
		return std::string(field_of(node.field).name) + ":" + value_text(node.glob);
	}
	std::string operator()(const NumberIs &node) const {
		const QueryField &field = field_of(node.field);
		return std::string(field.name) + ":" + number_text(node, field.unit);
	}
	std::string operator()(const Words &node) const {
		std::string text = phrase_text(node);
		return node.field == WordField::kAnywhere
				   ? text
				   : std::string(field_of(node.field).name) + ":" + text;
	}
	std::string operator()(const FlagIs &node) const {
		for (const NamedValue &each : named_values(SpecialField::kIs)) {
			if (each.condition() == Condition{node}) {
				return "is:" + std::string(each.name);
			}
		}
		return {};
	}

private:
	static std::string in_parentheses(const std::string &text, bool needs_them) {
		return needs_them ? "(" + text + ")" : text;
	}
	static std::string list(const std::vector<Condition> &conditions, const char *between,
							Place place) {
		std::string text;
		for (const Condition &each : conditions) {
			text += (text.empty() ? "" : between) + std::visit(Writer(place), each.node);
		}
		return text;
	}

	Place place_;
};

void add_time(std::string &text, const char *name, int64_t time) {
	text += text.empty() ? "" : " ";
	text += name + std::to_string(time);
}

} // namespace

std::string to_text(const Filter &filter) {
	std::string text;
	if (filter.range.from != TimeRange::kAlways) {
		add_time(text, "since:", filter.range.from);
	}
	if (filter.range.to != TimeRange::kForever) {
		add_time(text, "until:", filter.range.to);
	}
	bool has_alternatives = std::holds_alternative<Or>(filter.condition.node);
	Place place = !text.empty() && has_alternatives ? Place::kJoined : Place::kTop;
	std::string condition = std::visit(Writer(place), filter.condition.node);
	text += text.empty() || condition.empty() ? "" : " ";
	return text + condition;
}

} // namespace kaq
