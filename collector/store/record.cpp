#include "store/record.h"

#include <list>
#include <unordered_set>

#include "store/request_view.h"
#include "analysis/http_call.h"

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
	std::unordered_set<std::string_view> seen_[kTextKinds];
};

} // namespace

Record record_of(const Transaction &transaction) {
	Record record;
	record.summary = summarise(transaction);
	record.host = transaction.host;
	record.instance = transaction.instance_id;
	record.facts = facts_of(transaction);
	TextList texts(record.texts);
	/* What is put together here, for as long as the list looks at it. */
	std::list<std::string> made;
	for (const Span &span : transaction.spans) {
		texts.add(TextKind::kFunction, span.name);
		texts.add(TextKind::kStatement, span.query);
		for (const Failure &failure : span.failures) {
			texts.add(TextKind::kFailure, made.emplace_back(error_text(failure)));
		}
	}
	return record;
}

} // namespace kaq
		if (is_http_call(span)) {
			texts.add(TextKind::kCallHost, made.emplace_back(host_of(span.host)));
		}
