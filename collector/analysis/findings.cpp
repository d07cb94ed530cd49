#include "analysis/findings.h"

#include <algorithm>
#include <array>
#include <unordered_map>

#include "analysis/failure_group.h"
#include "analysis/findings_private.h"
#include "analysis/folding.h"
#include "analysis/statements.h"
#include "util/control_character.h"

namespace kaq {
namespace {

constexpr size_t kLongestSentence = 512;
constexpr size_t kLongestSaidName = 120;
constexpr int kMostLevels = 256;

/* What comes before all gains, with them, and after them. */
int rank_of(const Finding &finding) {
	if (finding.kind == FindingKind::kFailure) {
		return 0;
	}
	return finding.gain > 0 ? 1 : 2;
}

/* The most spans that can have been open when the limit was reached: they came on top of it. */
int64_t most_open(const std::vector<Span> &spans) {
	std::vector<int64_t> depths(spans.size(), 1);
	int64_t deepest = 1;
	for (size_t i = 1; i < spans.size(); i++) {
		depths[i] = depths[static_cast<size_t>(std::max(spans[i].parent, 0))] + 1;
		deepest = std::max(deepest, depths[i]);
	}
	return deepest - 1;
}

void find_limits(const Examined &request, std::vector<Finding> &findings) {
	const std::vector<Span> &spans = request.transaction.spans;
	for (const Fold &fold : folds_of(request.transaction)) {
		if (fold.kind == FoldKind::kPolls && fold.spans.size() >= kManyPolls) {
			std::string sentence = "curl_multi_exec " + std::to_string(fold.spans.size()) +
								   " times without waiting in between under " +
								   said(request.span(fold.parent).name);
			findings.push_back(make_finding(FindingKind::kPolling, sentence, 0, fold.spans));
			break;
		}
	}
	auto count = static_cast<int64_t>(spans.size());
	int64_t limit = request.options.span_limit;
	if (limit <= 0 || count < limit || count > limit + most_open(spans)) {
		return;
	}
	int64_t last = spans.back().start;
	std::string sentence = "The limit of spans was reached after " +
						   request.share(elapsed(spans.front().start, last)) +
						   ": what follows is missing";
	findings.push_back(make_finding(FindingKind::kSpanLimit, sentence, 0, {}));
}

bool is_time_limit(const Failure &failure) {
	return failure.message.substr(0, 22) == "Maximum execution time";
}

Finding ended_by(const Examined &request, const Failure &failure, int32_t span) {
	if (is_time_limit(failure)) {
		std::string sentence = "The limit of execution time ended the request after " +
							   std::to_string(request.duration) + " ms";
		return make_finding(FindingKind::kTimeLimit, sentence, 0, {span});
	}
	std::string sentence = said(group_of(failure).readable()) + " ended the request";
	return make_finding(FindingKind::kFailure, sentence, 0, {span});
}

} // namespace

Examined::Examined(const Transaction &request, const FindingOptions &settings)
	: transaction(request), options(settings),
	  duration(std::max(request.duration(), request.spans.front().duration())),
	  callers(callers_of(request.spans)) {
}

bool Examined::matters(int64_t gain, Threshold threshold) const {
	return gain >= threshold.least && gain >= duration * threshold.share / 100;
}

std::string Examined::share(int64_t gain) const {
	return std::to_string(gain) + " of " + std::to_string(duration) + " ms";
}

Common common_caller(const Examined &request, const std::vector<int32_t> &calls) {
	std::unordered_map<int32_t, size_t> counts;
	for (int32_t call : calls) {
		int32_t at = call;
		for (int level = 0; at > 0 && level < kMostLevels; level++) {
			at = request.callers[static_cast<size_t>(at)];
			counts[at]++;
		}
		if (at > 0) {
			counts[0]++;
		}
	}
	Common common;
	for (const auto &[caller, count] : counts) {
		/* Of those that have so many one lies within the other, and the inner one begins later. */
		if (count * 5 >= calls.size() * 4) {
			common.caller = std::max(common.caller, caller);
		}
	}
	bool is_first = true;
	for (int32_t call : calls) {
		int32_t below = call;
		int32_t at = request.callers[static_cast<size_t>(call)];
		for (int level = 0; at != common.caller && at > 0 && level < kMostLevels; level++) {
			below = at;
			at = request.callers[static_cast<size_t>(at)];
		}
		if (at != common.caller && common.caller != 0) {
			continue;
		}
		common.members.push_back(call);
		std::string_view branch = below == call ? std::string_view() : request.span(below).name;
		common.branch = is_first || common.branch == branch ? branch : std::string_view();
		is_first = false;
	}
	return common;
}

std::string place_text(const Examined &request, const Common &common) {
	std::string text = " under " + said(request.span(common.caller).name);
	if (!common.branch.empty()) {
		text += " through " + said(common.branch);
	}
	return text;
}

std::string said(std::string_view name) {
	std::string text(shortened(name, kLongestSaidName));
	if (text.size() < name.size()) {
		text += "...";
	}
	std::replace_if(text.begin(), text.end(), is_control_character, ' ');
	return text.empty() ? "(no name)" : text;
}

Finding make_finding(FindingKind kind, const std::string &sentence, int64_t gain,
					 const std::vector<int32_t> &spans) {
	Finding finding;
	finding.kind = kind;
	finding.sentence = shortened(sentence, kLongestSentence);
	finding.gain = gain;
	finding.count = static_cast<int64_t>(spans.size());
	auto kept = static_cast<std::ptrdiff_t>(std::min(spans.size(), kMostSpansOfAFinding));
	finding.spans.assign(spans.begin(), spans.begin() + kept);
	return finding;
}

void find_failures(const Examined &request, std::vector<Finding> &findings) {
	const std::vector<Span> &spans = request.transaction.spans;
	const Failure *last = nullptr;
	int32_t last_span = 0;
	for (size_t i = 0; i < spans.size(); i++) {
		for (const Failure &failure : spans[i].failures) {
			if (is_serious(failure)) {
				findings.push_back(ended_by(request, failure, static_cast<int32_t>(i)));
				return;
			}
			bool is_exception = failure.type != "ERROR";
			if (is_exception && (last == nullptr || failure.time >= last->time)) {
				last = &failure;
				last_span = static_cast<int32_t>(i);
			}
		}
	}
	if (last != nullptr && request.transaction.status >= 500) {
		std::string sentence = said(group_of(*last).readable()) + ", then status " +
							   std::to_string(request.transaction.status);
		findings.push_back(make_finding(FindingKind::kFailure, sentence, 0, {last_span}));
	}
}

std::vector<Finding> findings_of(const Transaction &transaction, const FindingOptions &options) {
	std::vector<Finding> findings;
	if (transaction.spans.empty()) {
		return findings;
	}
	Examined request(transaction, options);
	find_failures(request, findings);
	find_statements(request, findings);
	find_calls(request, findings);
	find_time(request, findings);
	find_limits(request, findings);
	std::stable_sort(findings.begin(), findings.end(),
					 [](const Finding &one, const Finding &other) {
						 int rank = rank_of(one), other_rank = rank_of(other);
						 return rank != other_rank ? rank < other_rank : one.gain > other.gain;
					 });
	findings.resize(std::min(findings.size(), kMostFindings));
	return findings;
}

} // namespace kaq
