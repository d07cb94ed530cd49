#include "analysis/facts.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "analysis/failure_group.h"
#include "analysis/http_call.h"
#include "analysis/layers.h"
#include "analysis/statements.h"

namespace kaq {
namespace {

std::string kept(std::string_view text) {
	return std::string(shortened(text, kLongestFactText));
}

/* The entries of a list by a key; behind the last one that is told apart, one for all others. */
template <typename Entry, typename Key> class Entries {
public:
	/* New entries are filled by `fill(entry)`, the one for all others by `fill_other(entry)`. */
	template <typename Fill, typename FillOther>
	Entry &at(const Key &key, const Fill &fill, const FillOther &fill_other) {
		auto known = by_key_.find(key);
		if (known != by_key_.end()) {
			return list_[known->second];
		}
		bool is_full = list_.size() >= kMostFacts;
		if (list_.size() > kMostFacts) {
			return list_.back();
		}
		Entry &entry = list_.emplace_back();
		if (is_full) {
			fill_other(entry);
		} else {
			by_key_.emplace(key, list_.size() - 1);
			fill(entry);
		}
		return entry;
	}

	std::vector<Entry> take() {
		return std::move(list_);
	}

private:
	std::vector<Entry> list_;
	std::map<Key, size_t> by_key_;
};

class LeftOut {
public:
	explicit LeftOut(const std::vector<bool> &spans) : spans_(spans) {
	}
	bool has(size_t span) const {
		return span < spans_.size() && spans_[span];
	}
	bool has(int32_t span) const {
		return has(static_cast<size_t>(span));
	}

private:
	const std::vector<bool> &spans_;
};

class StatementCounter {
public:
	StatementCounter(const Transaction &transaction, const LeftOut &left_out)
		: spans_(transaction.spans), left_out_(left_out), callers_(callers_of(transaction.spans)),
		  statements_(statements_of(transaction)) {
	}

	std::vector<StatementFacts> count() {
		for (const Execution &execution : statements_.executions) {
			if (left_out_.has(execution.span)) {
				continue;
			}
			const Span &span = spans_[static_cast<size_t>(execution.span)];
			StatementFacts &facts = facts_of(execution, span);
			int64_t duration = span.duration();
			if (execution.prepared >= 0 && !left_out_.has(execution.prepared)) {
				duration += spans_[static_cast<size_t>(execution.prepared)].duration();
			}
			facts.count++;
			facts.total += duration;
			facts.longest = std::max(facts.longest, duration);
			facts.durations.push_back(duration);
			facts.failed += span.is_failed ? 1 : 0;
		}
		for (const Execution &unused : statements_.unused) {
			const Span &span = spans_[static_cast<size_t>(unused.span)];
			if (!left_out_.has(unused.span)) {
				facts_of(unused, span).total += span.duration();
			}
		}
		return entries_.take();
	}

private:
	StatementFacts &facts_of(const Execution &execution, const Span &span) {
		const Database &database = statements_.databases[execution.database];
		std::string_view text = statements_.texts[execution.text];
		auto caller = static_cast<size_t>(callers_[static_cast<size_t>(execution.span)]);
		std::string_view name = spans_[caller].name;
		return entries_.at(
			{execution.text, execution.database, span.component, name},
			[&](StatementFacts &facts) {
				facts.text = kept(text);
				facts.component = kept(span.component);
				facts.server = database.server;
				facts.database = database.name;
				facts.caller = kept(name);
			},
			[](StatementFacts &facts) { facts.text = kOtherFacts; });
	}

	const std::vector<Span> &spans_;
	const LeftOut &left_out_;
	const std::vector<int32_t> callers_;
	const Statements statements_;
	/* Texts and databases are told apart by their indexes. */
	Entries<StatementFacts, std::tuple<uint32_t, uint32_t, std::string_view, std::string_view>>
		entries_;
};

std::vector<HostFacts> hosts_of(const Transaction &transaction, const LeftOut &left_out) {
	Entries<HostFacts, std::string> entries;
	for (size_t i = 0; i < transaction.spans.size(); i++) {
		const Span &span = transaction.spans[i];
		if (!is_http_call(span) || left_out.has(i)) {
			continue;
		}
		std::string host = host_of(span.host);
		HostFacts &facts = entries.at(
			host, [&](HostFacts &each) { each.host = host; },
			[](HostFacts &each) { each.host = kOtherFacts; });
		facts.count++;
		facts.total += span.duration();
		facts.longest = std::max(facts.longest, span.duration());
		facts.durations.push_back(span.duration());
		facts.failed += is_failed_call(span) ? 1 : 0;
	}
	return entries.take();
}

int severity_of(std::string_view level) {
	if (level == "Error") {
		return 3;
	}
	return level == "Warning" ? 2 : level == "Notice" ? 1 : 0;
}

/* What was thrown and not caught is in the document twice. */
std::vector<FailureFacts> failures_of(const Transaction &transaction, const LeftOut &left_out) {
	Entries<FailureFacts, std::string> entries;
	for (size_t i = 0; i < transaction.spans.size(); i++) {
		if (left_out.has(i)) {
			continue;
		}
		for (const Failure &failure : transaction.spans[i].failures) {
			FailureGroup group = group_of(failure);
			FailureFacts &facts = entries.at(
				group.key,
				[&](FailureFacts &each) {
					each.key = group.key;
					each.type = group.type;
					each.place = group.place;
					each.message = group.message;
				},
				[](FailureFacts &each) { each.key = kOtherFacts; });
			facts.count += group.is_uncaught ? 0 : 1;
			facts.is_serious = facts.is_serious || is_serious(failure);
			if (severity_of(failure.level) > severity_of(facts.level)) {
				facts.level = kept(shortened(failure.level, 16));
			}
		}
	}
	std::vector<FailureFacts> list = entries.take();
	for (FailureFacts &facts : list) {
		facts.count = std::max<int64_t>(facts.count, 1);
	}
	return list;
}

} // namespace

Facts facts_of(const Transaction &transaction, const std::vector<bool> &is_left_out) {
	LeftOut left_out(is_left_out);
	return {StatementCounter(transaction, left_out).count(), hosts_of(transaction, left_out),
			failures_of(transaction, left_out)};
}

} // namespace kaq
