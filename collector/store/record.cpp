#include "store/record.h"

#include <unordered_set>

namespace kaq {
namespace {

class TextList {
public:
	explicit TextList(std::vector<RequestText> &texts) : texts_(texts) {
	}

	void add(TextKind kind, std::string_view text) {
		text = text.substr(0, kLongestFactText);
		if (text.empty() || texts_.size() >= kMostTexts) {
			return;
		}
		if (seen_[static_cast<size_t>(kind)].emplace(text).second) {
			texts_.push_back({kind, std::string(text)});
		}
	}

private:
	std::vector<RequestText> &texts_;
	std::unordered_set<std::string_view> seen_[3];
};

} // namespace

Record record_of(const Transaction &transaction) {
	Record record;
	record.summary = summarise(transaction);
	record.host = transaction.host;
	record.instance = transaction.instance_id;
	record.facts = facts_of(transaction);
	TextList texts(record.texts);
	for (const StatementFacts &statement : record.facts.statements) {
		texts.add(TextKind::kStatement, statement.text);
	}
	/* A lasting home for the texts that are put together here: the list only looks at them. */
	std::vector<std::string> failures;
	failures.reserve(record.facts.failures.size());
	for (const FailureFacts &failure : record.facts.failures) {
		failures.push_back(failure.type + ' ' + failure.message + ' ' + failure.place);
		texts.add(TextKind::kFailure, failures.back());
	}
	for (const Span &span : transaction.spans) {
		texts.add(TextKind::kFunction, span.name);
	}
	return record;
}

} // namespace kaq
