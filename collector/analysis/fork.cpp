#include "analysis/fork.h"

#include <xxhash.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

namespace kaq {
namespace {

uint64_t hash_of(const std::string &text) {
	return XXH3_64bits(text.data(), text.size());
}

/* Texts one after the other, so that none can be taken for a part of its neighbour. */
void append(std::string &key, std::string_view text) {
	key += std::to_string(text.size()) + ':';
	key += text;
}

} // namespace

uint64_t fork_family(const Transaction &transaction) {
	const Span &root = transaction.spans.front();
	std::string key;
	for (std::string_view text : {transaction.trace_id, transaction.application,
								  transaction.instance_id, transaction.name, root.parent_id}) {
		append(key, text);
	}
	key += std::to_string(transaction.start) + ' ' + std::to_string(root.start);
	return hash_of(key);
}

std::vector<SpanMark> marks_of(const Transaction &transaction) {
	std::vector<SpanMark> marks;
	marks.reserve(transaction.spans.size());
	std::string call;
	for (const Span &span : transaction.spans) {
		call.clear();
		append(call, span.name);
		append(call, span.component);
		marks.push_back({span.parent, hash_of(call), span.start, span.end});
	}
	return marks;
}

/* A call that was open at the fork is in both, too, and ends at different times; what comes behind
 * the first call that is not in both has happened after the fork. */
std::vector<bool> repeated_spans(const std::vector<SpanMark> &one,
								 const std::vector<SpanMark> &other) {
	using Key = std::tuple<int32_t, uint64_t, int64_t>;
	std::map<Key, std::vector<int32_t>> candidates; /* the last one comes first */
	for (size_t i = one.size(); i-- > 1;) {
		candidates[{one[i].parent, one[i].call, one[i].start}].push_back(static_cast<int32_t>(i));
	}
	std::vector<bool> is_repeated(other.size(), false);
	std::vector<int32_t> same(other.size(), 0);
	for (size_t i = 1; i < other.size(); i++) {
		int32_t outer = same[static_cast<size_t>(std::max(other[i].parent, 0))];
		auto found = candidates.find({outer, other[i].call, other[i].start});
		if (found == candidates.end() || found->second.empty()) {
			break;
		}
		same[i] = found->second.back();
		found->second.pop_back();
		is_repeated[i] = one[static_cast<size_t>(same[i])].end == other[i].end;
	}
	return is_repeated;
}

} // namespace kaq
