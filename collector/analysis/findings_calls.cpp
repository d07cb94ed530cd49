#include <algorithm>
#include <map>
#include <set>

#include "analysis/findings_private.h"
#include "analysis/http_call.h"
#include "analysis/intervals.h"

namespace kaq {
namespace {

/* The pause between two calls of one sequence: a moment, or half of the shorter call. */
constexpr int64_t kMoment = 10;

struct Call {
	int32_t span = 0;
	Interval time;
	int64_t alone = 0; /* the time in which no other call runs */
	int64_t gain = 0;  /* if it took no time, and what can overlap did */
	bool is_failed = false;

	int64_t duration() const {
		return time.duration();
	}
};

/* In the order of their beginnings. */
std::vector<Call> calls_of(const Transaction &transaction) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<Call> calls;
	for (size_t i = 0; i < spans.size(); i++) {
		if (is_http_call(spans[i])) {
			Call call;
			call.span = static_cast<int32_t>(i);
			call.time = clipped(interval_of(spans[i]), interval_of(spans.front()));
			call.is_failed = is_failed_call(spans[i]);
			calls.push_back(call);
		}
	}
	std::stable_sort(calls.begin(), calls.end(), [](const Call &one, const Call &other) {
		return one.time.start < other.time.start;
	});
	return calls;
}

void measure_alone(std::vector<Call> &calls) {
	struct Event {
		int64_t time = 0;
		size_t call = 0;
		bool is_start = false;
	};
	std::vector<Event> events;
	for (size_t i = 0; i < calls.size(); i++) {
		if (calls[i].duration() > 0) {
			events.push_back({calls[i].time.start, i, true});
			events.push_back({calls[i].time.end, i, false});
		}
	}
	std::sort(events.begin(), events.end(),
			  [](const Event &one, const Event &other) { return one.time < other.time; });
	std::set<size_t> running;
	int64_t before = 0;
	for (const Event &event : events) {
		if (running.size() == 1) {
			calls[*running.begin()].alone += elapsed(before, event.time);
		}
		before = event.time;
		if (event.is_start) {
			running.insert(event.call);
		} else {
			running.erase(event.call);
		}
	}
}

class CallFinder {
public:
	CallFinder(const Examined &request, std::vector<Finding> &findings)
		: request_(request), findings_(findings), calls_(calls_of(request.transaction)) {
		measure_alone(calls_);
		for (Call &call : calls_) {
			call.gain = call.alone;
		}
	}

	void run() {
		find_sequences();
		find_slow_ones();
		find_failed_ones();
	}

private:
	/* Those that failed are told as such: they may have been tried again, one after the other. */
	void find_sequences() {
		std::vector<Call *> sequence;
		for (Call &call : calls_) {
			if (call.is_failed) {
				continue;
			}
			bool is_by_itself = call.alone == call.duration();
			if (!sequence.empty() && !(is_by_itself && follows(call, *sequence.back()))) {
				end_sequence(sequence);
				sequence.clear();
			}
			if (is_by_itself) {
				sequence.push_back(&call);
			}
		}
		end_sequence(sequence);
	}

	static bool follows(const Call &call, const Call &before) {
		int64_t pause = elapsed(before.time.end, call.time.start);
		return pause <= std::max(kMoment, std::min(call.duration(), before.duration()) / 2);
	}

	void end_sequence(const std::vector<Call *> &sequence) {
		std::vector<int32_t> spans;
		int64_t total = 0;
		int64_t longest = 0;
		int64_t second = 0;
		Call *longest_call = nullptr;
		for (Call *call : sequence) {
			spans.push_back(call->span);
			total += call->duration();
			if (longest_call == nullptr || call->duration() > longest) {
				second = longest;
				longest = call->duration();
				longest_call = call;
			} else {
				second = std::max(second, call->duration());
			}
		}
		int64_t gain = total - longest;
		if (sequence.size() < 2 || !request_.matters(gain, kInSequence)) {
			return;
		}
		findings_.push_back(
			make_finding(FindingKind::kCallsInSequence,
						 std::to_string(spans.size()) + " HTTP calls one after the other" +
							 place_text(request_, common_caller(request_, spans)) + ": " +
							 request_.share(gain) + ", if they are independent",
						 gain, spans));
		/* Side by side they take as long as the longest one. */
		for (Call *call : sequence) {
			call->gain = 0;
		}
		longest_call->gain = longest - second;
	}

	struct Endpoint {
		std::vector<int32_t> spans;
		int64_t gain = 0;
		int64_t worst_status = 0; /* 0: one had none */
	};

	void find_slow_ones() {
		std::map<std::string, Endpoint> slow;
		for (const Call &call : calls_) {
			if (!call.is_failed && call.gain >= kSlowCallOne.least) {
				Endpoint &endpoint = slow[endpoint_of(request_.span(call.span).host)];
				endpoint.spans.push_back(call.span);
				endpoint.gain += call.gain;
			}
		}
		for (const auto &[name, endpoint] : slow) {
			if (request_.matters(endpoint.gain, kSlowCallOne)) {
				findings_.push_back(
					make_finding(FindingKind::kSlowCall,
								 calls_text(endpoint) + " to " + said(name) +
									 place_text(request_, common_caller(request_, endpoint.spans)) +
									 ": " + request_.share(endpoint.gain),
								 endpoint.gain, endpoint.spans));
			}
		}
	}

	void find_failed_ones() {
		std::map<std::string, Endpoint> failed;
		for (const Call &call : calls_) {
			if (call.is_failed) {
				const Span &span = request_.span(call.span);
				Endpoint &endpoint = failed[host_of(span.host)];
				bool is_first = endpoint.spans.empty();
				bool is_worse = span.status <= 0 || endpoint.worst_status > 0;
				endpoint.worst_status = is_first || is_worse ? span.status : endpoint.worst_status;
				endpoint.spans.push_back(call.span);
				endpoint.gain += call.alone;
			}
		}
		for (const auto &[name, endpoint] : failed) {
			std::string how = endpoint.worst_status > 0
								  ? "status " + std::to_string(endpoint.worst_status)
								  : "no answer";
			bool matters = request_.matters(endpoint.gain, kFailedInVain);
			findings_.push_back(make_finding(
				FindingKind::kFailedCall,
				calls_text(endpoint) + " to " + said(name.empty() ? "an unknown host" : name) +
					" failed (" + how + ")" + (matters ? ": " + request_.share(endpoint.gain) : ""),
				matters ? endpoint.gain : 0, endpoint.spans));
		}
	}

	static std::string calls_text(const Endpoint &endpoint) {
		size_t count = endpoint.spans.size();
		return count == 1 ? "One HTTP call" : std::to_string(count) + " HTTP calls";
	}

	const Examined &request_;
	std::vector<Finding> &findings_;
	std::vector<Call> calls_;
};

} // namespace

void find_calls(const Examined &request, std::vector<Finding> &findings) {
	CallFinder(request, findings).run();
}

} // namespace kaq
