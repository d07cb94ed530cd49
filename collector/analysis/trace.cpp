#include "analysis/trace.h"

#include <algorithm>
#include <limits>
#include <map>
#include <string_view>
#include <unordered_map>

#include "analysis/critical_path_private.h"
#include "analysis/fork.h"

namespace kaq {
namespace {

struct Place {
	int32_t request = -1;
	int32_t span = -1;
};

const Span &root_of(const Transaction &transaction) {
	return transaction.spans.front();
}

class Assembler {
public:
	explicit Assembler(const std::vector<const Transaction *> &transactions)
		: given_(transactions), callers_(transactions.size()), forks_(transactions.size(), -1),
		  below_(transactions.size()), places_(transactions.size(), -1) {
		std::stable_sort(given_.begin(), given_.end(),
						 [](const Transaction *one, const Transaction *other) {
							 return root_of(*one).start < root_of(*other).start;
						 });
	}

	Trace assemble() {
		find_forks();
		find_callers();
		for (size_t i = 0; i < given_.size(); i++) {
			if (callers_[i].request < 0) {
				add(i);
			}
		}
		/* Callers that name each other in a ring: the ring is cut where it began. */
		for (size_t i = 0; i < given_.size(); i++) {
			if (places_[i] < 0) {
				callers_[i] = Place();
				add(i);
			}
		}
		trace_.critical_path = critical_path_of(trace_.requests);
		return std::move(trace_);
	}

private:
	void find_forks() {
		std::map<uint64_t, std::vector<size_t>> families;
		for (size_t i = 0; i < given_.size(); i++) {
			families[fork_family(*given_[i])].push_back(i);
		}
		for (auto &entry : families) {
			std::vector<size_t> &family = entry.second;
			std::stable_sort(family.begin(), family.end(), [&](size_t one, size_t other) {
				return given_[one]->thread < given_[other]->thread;
			});
			for (size_t at = 1; at < family.size(); at++) {
				if (given_[family[at]]->thread != given_[family[0]]->thread) {
					forks_[family[at]] = static_cast<int32_t>(family[0]);
				}
			}
		}
	}

	void find_callers() {
		std::unordered_map<std::string_view, Place> owners;
		for (size_t i = 0; i < given_.size(); i++) {
			const std::vector<Span> &spans = given_[i]->spans;
			for (size_t span = 0; span < spans.size(); span++) {
				if (!spans[span].id.empty()) {
					owners.emplace(spans[span].id,
								   Place{static_cast<int32_t>(i), static_cast<int32_t>(span)});
				}
			}
		}
		for (size_t i = 0; i < given_.size(); i++) {
			auto owner = owners.find(root_of(*given_[i]).parent_id);
			if (forks_[i] >= 0) {
				callers_[i] = {forks_[i], 0};
			} else if (owner != owners.end() && owner->second.request != static_cast<int32_t>(i)) {
				callers_[i] = owner->second;
			}
			if (callers_[i].request >= 0) {
				below_[static_cast<size_t>(callers_[i].request)].push_back(i);
			}
		}
	}

	/* With all that it has caused, the first one first. */
	void add(size_t top) {
		std::vector<size_t> waiting = {top};
		while (!waiting.empty()) {
			size_t at = waiting.back();
			waiting.pop_back();
			if (places_[at] >= 0) {
				continue;
			}
			place(at);
			waiting.insert(waiting.end(), below_[at].rbegin(), below_[at].rend());
		}
	}

	void place(size_t at) {
		TraceRequest request;
		request.transaction = given_[at];
		if (callers_[at].request >= 0) {
			request.caller_request = places_[static_cast<size_t>(callers_[at].request)];
			request.caller_span = callers_[at].span;
		}
		if (request.caller_request >= 0 && forks_[at] >= 0) {
			const TraceRequest &parent = requests()[static_cast<size_t>(request.caller_request)];
			request.forked_from = request.caller_request;
			request.shift = parent.shift;
			request.is_repeated =
				repeated_spans(marks_of(*parent.transaction), marks_of(*request.transaction));
		} else if (request.caller_request >= 0) {
			request.shift = shift_of(request);
		}
		places_[at] = static_cast<int32_t>(requests().size());
		requests().push_back(std::move(request));
	}

	int64_t shift_of(const TraceRequest &request) {
		const TraceRequest &caller = requests()[static_cast<size_t>(request.caller_request)];
		const Span &call = caller.transaction->spans[static_cast<size_t>(request.caller_span)];
		const Span &root = root_of(*request.transaction);
		int64_t start = shifted(call.start, caller.shift);
		int64_t end = shifted(call.end, caller.shift);
		if (root.start < start || root.duration() > elapsed(start, end)) {
			return shifted(start, -std::max(root.start, -std::numeric_limits<int64_t>::max()));
		}
		return root.end <= end ? 0 : -elapsed(end, root.end);
	}

	std::vector<TraceRequest> &requests() {
		return trace_.requests;
	}

	std::vector<const Transaction *> given_;
	std::vector<Place> callers_;
	std::vector<int32_t> forks_;             /* the parent process's request, or -1 */
	std::vector<std::vector<size_t>> below_; /* those that a request has caused */
	std::vector<int32_t> places_;            /* in the trace; -1: not yet there */
	Trace trace_;
};

} // namespace

Trace assemble_trace(const std::vector<const Transaction *> &transactions) {
	return Assembler(transactions).assemble();
}

int64_t shifted(int64_t time, int64_t shift) {
	int64_t result;
	if (!__builtin_add_overflow(time, shift, &result)) {
		return result;
	}
	return shift > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

} // namespace kaq
