#include <algorithm>
#include <map>
#include <tuple>

#include "analysis/folding.h"
#include "analysis/http_call.h"
#include "analysis/statements.h"
#include "query/request_json.h"

namespace kaq {
namespace {

/* What a span is, and the shapes of what it calls. */
struct Shape {
	std::string_view name;
	std::string_view component;
	std::string text; /* statement or address */
	bool is_failed = false;
	std::vector<int32_t> within;

	bool operator<(const Shape &other) const {
		return std::tie(name, component, text, is_failed, within) <
			   std::tie(other.name, other.component, other.text, other.is_failed, other.within);
	}
};

/* Statements by the spans that run or prepare them. */
std::vector<std::string> texts_of(const Transaction &transaction) {
	std::vector<std::string> texts(transaction.spans.size());
	for (size_t i = 0; i < texts.size(); i++) {
		const Span &span = transaction.spans[i];
		texts[i] = is_http_call(span) ? endpoint_of(span.host) : std::string(span.host);
	}
	Statements statements = statements_of(transaction);
	for (const Execution &execution : statements.executions) {
		texts[static_cast<size_t>(execution.span)] = statements.texts[execution.text];
	}
	for (const Execution &execution : statements.unused) {
		texts[static_cast<size_t>(execution.span)] = statements.texts[execution.text];
	}
	return texts;
}

} // namespace

std::vector<int32_t> shapes_of(const Transaction &transaction) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<std::string> texts = texts_of(transaction);
	std::vector<bool> is_silent(spans.size(), false);
	for (const Fold &fold : folds_of(transaction)) {
		for (int32_t span : fold.spans) {
			is_silent[static_cast<size_t>(span)] = true;
		}
	}
	std::map<Shape, int32_t> numbers;
	std::vector<int32_t> shapes(spans.size());
	std::vector<std::vector<int32_t>> within(spans.size());
	for (size_t i = spans.size(); i-- > 0;) {
		const Span &span = spans[i];
		/* Children were met last to first. */
		std::reverse(within[i].begin(), within[i].end());
		within[i].erase(std::unique(within[i].begin(), within[i].end()), within[i].end());
		Shape shape{span.name, span.component, std::move(texts[i]),
					span.is_failed || !span.failures.empty(), std::move(within[i])};
		auto number = static_cast<int32_t>(numbers.size());
		shapes[i] = numbers.emplace(std::move(shape), number).first->second;
		if (span.parent >= 0 && !is_silent[i]) {
			within[static_cast<size_t>(span.parent)].push_back(shapes[i]);
		}
	}
	return shapes;
}

} // namespace kaq
