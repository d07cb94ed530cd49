#include "store/record.h"

#include <algorithm>
#include <list>
#include <unordered_set>

#include "analysis/http_call.h"
#include "analysis/statements.h"
#include "store/request_view.h"

namespace kaq {
namespace {

class TextList {
public:
	explicit TextList(std::vector<RequestText> &texts) : texts_(texts) {
	}

	void add(TextKind kind, std::string_view text) {
		text = shortened(text, kLongestFactText);
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

/* What the other spans come to is the rest. */
RepeatedWork repeated_work(const Transaction &transaction, const Summary &all,
						   const std::vector<bool> &is_repeated) {
	if (std::find(is_repeated.begin(), is_repeated.end(), true) == is_repeated.end()) {
		return {};
	}
	Transaction rest; /* refers to the texts of the whole one */
	std::vector<int32_t> places;
	for (size_t i = 0; i < transaction.spans.size(); i++) {
		const Span &span = transaction.spans[i];
		int32_t parent = span.parent < 0 ? -1 : places[static_cast<size_t>(span.parent)];
		if (is_repeated[i]) {
			places.push_back(parent);
			continue;
		}
		places.push_back(static_cast<int32_t>(rest.spans.size()));
		rest.spans.push_back(span);
		rest.spans.back().parent = parent;
	}
	Summary own = summarise(rest);
	return {all.queries - own.queries, all.query_time - own.query_time, all.calls - own.calls,
			all.external_time - own.external_time};
}

} // namespace

Record record_of(const Transaction &transaction, const std::vector<bool> &is_repeated) {
	Record record;
	record.summary = summarise(transaction);
	record.repeated = repeated_work(transaction, record.summary, is_repeated);
	record.host = shortened(transaction.host, kLongestSummaryWord);
	record.instance = shortened(transaction.instance_id, kLongestSummaryWord);
	record.facts = facts_of(transaction, is_repeated);
	TextList texts(record.texts);
	/* What is put together here, for as long as the list looks at it. */
	std::list<std::string> made;
	for (const Span &span : transaction.spans) {
		texts.add(TextKind::kFunction, span.name);
		texts.add(TextKind::kStatement, span.query);
		if (is_http_call(span)) {
			texts.add(TextKind::kCallHost, made.emplace_back(host_of(span.host)));
		}
		for (const Failure &failure : span.failures) {
			texts.add(TextKind::kFailure, made.emplace_back(error_text(failure)));
		}
	}
	return record;
}

} // namespace kaq
