#include "analysis/scrub.h"

#include <xxhash.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <unordered_map>

#include "analysis/layers.h"
#include "analysis/sql_text.h"
#include "analysis/statement_messages.h"

namespace kaq {
namespace {

/* Nobody can send texts that have the same hash. */
struct TextHash {
	size_t operator()(std::string_view text) const {
		static const uint64_t salt =
			(uint64_t{std::random_device()()} << 32) | std::random_device()();
		return XXH3_64bits_withSeed(text.data(), text.size(), salt);
	}
};

constexpr std::array<bool, 256> hex_digits() {
	std::array<bool, 256> are = {};
	for (char each : {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a',
					  'b', 'c', 'd', 'e', 'f', 'A', 'B', 'C', 'D', 'E', 'F'}) {
		are[static_cast<unsigned char>(each)] = true;
	}
	return are;
}

constexpr std::array<bool, 256> kHexDigits = hex_digits();

/* Hexadecimal digits, which a card's number cannot be told from. Every span has two. */
bool is_id(std::string_view text) {
	bool is_one = true;
	for (char each : text) {
		is_one = is_one && kHexDigits[static_cast<unsigned char>(each)];
	}
	return is_one;
}

/* "--password", "-token": the next argument is its value. */
bool is_secret_option(std::string_view argument, const ScrubSettings &settings) {
	size_t dashes = std::min(argument.find_first_not_of('-'), argument.size());
	std::string_view name = argument.substr(dashes);
	return dashes > 0 && name.find('=') == std::string_view::npos && is_secret_name(name, settings);
}

class Scrubber {
public:
	Scrubber(Transaction &transaction, const ScrubSettings &settings)
		: transaction_(transaction), texts_(transaction.texts), settings_(settings) {
	}

	void run() {
		Transaction &t = transaction_;
		for (std::string_view *text : {&t.application, &t.application_group, &t.name,
									   &t.normalised_name, &t.host, &t.method, &t.flow}) {
			clean(*text);
		}
		clean(t.query_string, TextSyntax::kQuery);
		for (std::string_view *id : {&t.instance_id, &t.trace_id}) {
			clean_id(*id);
		}
		hide(t.session_id);
		for (std::vector<Field> *fields :
			 {&t.request_headers, &t.parameters, &t.response_headers, &t.custom_parameters}) {
			clean(*fields);
		}
		hide_arguments(t.parameters);
		for (std::vector<Measure> *measures : {&t.sums, &t.averages}) {
			for (Measure &measure : *measures) {
				clean(measure.name);
			}
		}
		for (Span &span : t.spans) {
			clean(span);
		}
	}

private:
	/* Of a statement that was seen already. */
	struct Statement {
		Span *first = nullptr;
		std::string_view cleaned;
	};

	void clean(std::string_view &text, TextSyntax syntax = TextSyntax::kAny) {
		if (find_secrets(text, settings_, syntax, cleaned_)) {
			text = texts_.keep(cleaned_);
		}
	}

	void clean_id(std::string_view &id) {
		if (!is_id(id)) {
			clean(id);
		}
	}

	void hide(std::string_view &text) {
		if (!text.empty()) {
			text = texts_.keep(hidden(text));
		}
	}

	void clean(std::vector<Field> &fields) {
		for (Field &field : fields) {
			if (is_secret_name(field.name, settings_)) {
				hide(field.value);
			} else {
				clean(field.value);
			}
			clean(field.name);
		}
	}

	/* Those of a script of the command line are called so. */
	void hide_arguments(std::vector<Field> &arguments) {
		constexpr std::string_view kArgument = "$argv[";
		for (size_t i = 1; i < arguments.size(); i++) {
			bool is_value = arguments[i].name.substr(0, kArgument.size()) == kArgument &&
							arguments[i].value.substr(0, 1) != "-";
			if (is_value && is_secret_option(arguments[i - 1].value, settings_)) {
				hide(arguments[i].value);
			}
		}
	}

	/* Commands of a cache have no quotes around what they are given. */
	static std::string command_alone(std::string_view command) {
		size_t end = command.find_first_of(" \t\r\n");
		return std::string(command.substr(0, end)) + (end == std::string_view::npos ? "" : " ?");
	}

	void clean_query(Span &span) {
		std::string_view raw = span.query;
		if (!settings_.keeps_literals && layer_of(span.component) == Layer::kCache) {
			span.query = texts_.keep(command_alone(raw));
			return;
		}
		auto [place, is_new] = statements_.try_emplace(raw);
		Statement &statement = place->second;
		if (is_new) {
			statement.first = &span;
			if (settings_.keeps_literals) {
				clean(span.query);
			} else {
				span.query = texts_.keep(without_literals(raw, false));
			}
			statement.cleaned = span.query;
		}
		span.query = statement.cleaned;
		/* What was prepared once may run more often. */
		bool may_run_again = !is_new || !span.is_external;
		int32_t &values = statement.first->values;
		if (values == 0 && may_run_again && !has_places(raw)) {
			values = ++last_values_;
		}
		span.values = values;
	}

	void clean(Span &span) {
		span.values = 0;
		if (!span.query.empty()) {
			clean_query(span);
		}
		for (std::string_view *text : {&span.name, &span.component, &span.host, &span.database}) {
			clean(*text);
		}
		for (std::string_view *id : {&span.id, &span.parent_id}) {
			clean_id(*id);
		}
		clean(span.sent_headers);
		clean(span.received_headers);
		for (Failure &failure : span.failures) {
			for (std::string_view *text :
				 {&failure.type, &failure.file, &failure.level, &failure.message}) {
				clean(*text);
			}
			if (!settings_.keeps_literals && without_quoted_values(failure.message, cleaned_)) {
				failure.message = texts_.keep(cleaned_);
			}
		}
		for (StackFrame &frame : span.stack) {
			for (std::string_view *text : {&frame.type, &frame.function, &frame.file}) {
				clean(*text);
			}
		}
	}

	Transaction &transaction_;
	TextArena &texts_;
	const ScrubSettings &settings_;
	std::unordered_map<std::string_view, Statement, TextHash> statements_; /* as they came */
	int32_t last_values_ = 0;
	std::string cleaned_;
};

} // namespace

void scrub(Transaction &transaction, const ScrubSettings &settings) {
	Scrubber(transaction, settings).run();
}

} // namespace kaq
