#include "analysis/folding.h"

#include <algorithm>
#include <optional>

#include "analysis/layers.h"

namespace kaq {
namespace {

/* What a span is folded as; nothing if it tells something. */
std::optional<FoldKind> fold_kind(const Span &span, bool has_children) {
	bool is_silent = layer_of(span) == Layer::kHttp && !span.is_external && !has_children &&
					 !span.is_failed && span.failures.empty();
	if (!is_silent) {
		return std::nullopt;
	}
	return span.name == "curl_multi_exec" ? FoldKind::kPolls : FoldKind::kOptions;
}

} // namespace

std::vector<Fold> folds_of(const Transaction &transaction) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<bool> has_children(spans.size(), false);
	for (size_t i = 1; i < spans.size(); i++) {
		has_children[static_cast<size_t>(std::max(spans[i].parent, 0))] = true;
	}
	constexpr size_t kNone = SIZE_MAX;
	std::vector<Fold> folds;
	std::vector<size_t> current(spans.size(), kNone); /* by parent: the fold that goes on */
	for (size_t i = 1; i < spans.size(); i++) {
		auto parent = static_cast<size_t>(std::max(spans[i].parent, 0));
		std::optional<FoldKind> kind = fold_kind(spans[i], has_children[i]);
		if (!kind) {
			current[parent] = kNone;
			continue;
		}
		if (current[parent] == kNone || folds[current[parent]].kind != *kind) {
			current[parent] = folds.size();
			Fold &fold = folds.emplace_back();
			fold.kind = *kind;
			fold.parent = static_cast<int32_t>(parent);
		}
		Fold &fold = folds[current[parent]];
		fold.spans.push_back(static_cast<int32_t>(i));
		fold.total += spans[i].duration();
	}
	folds.erase(std::remove_if(folds.begin(), folds.end(),
							   [](const Fold &fold) { return fold.spans.size() < 2; }),
				folds.end());
	return folds;
}

} // namespace kaq
