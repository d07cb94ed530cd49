#include <algorithm>

#include "analysis/critical_path_private.h"
#include "analysis/intervals.h"

namespace kaq {
namespace {

/* A transfer that runs beside the code belongs to the call further out that it lies within; it is
 * looked for among so many. */
constexpr int kMostCallers = 64;

/* A span of one of the requests, on the clock of the trace. */
struct Node {
	int32_t request = 0;
	int32_t span = 0;
	Interval time;
};

/*
 * Walks backwards from the end: what ended last before a moment held everything up until then;
 * before it began, what ended last before that.
 */
class Walk {
public:
	explicit Walk(const std::vector<TraceRequest> &requests) : requests_(requests) {
		for (const TraceRequest &request : requests) {
			first_.push_back(count_);
			count_ += request.transaction->spans.size();
		}
		inner_.resize(count_);
		for (size_t at = 0; at < requests.size(); at++) {
			add_spans(static_cast<int32_t>(at));
		}
		for (std::vector<Node> &nodes : inner_) {
			std::stable_sort(nodes.begin(), nodes.end(), [](const Node &one, const Node &other) {
				return one.time.end != other.time.end ? one.time.end > other.time.end
													  : one.time.start < other.time.start;
			});
		}
	}

	std::vector<PathStep> steps() {
		Node root = node_of(0, 0);
		enter(root, root.time);
		while (!open_.empty()) {
			go_on();
		}
		std::reverse(steps_.begin(), steps_.end());
		return std::move(steps_);
	}

private:
	/* A span that is walked through, from `now` back to `from`. */
	struct Open {
		Node node;
		int64_t from = 0;
		int64_t now = 0;
		size_t next = 0; /* of its inner calls, latest end first */
	};

	Node node_of(int32_t request, int32_t span) const {
		const TraceRequest &owner = requests_[static_cast<size_t>(request)];
		const Span &told = owner.transaction->spans[static_cast<size_t>(span)];
		return {request, span, {shifted(told.start, owner.shift), shifted(told.end, owner.shift)}};
	}

	std::vector<Node> &inner_of(int32_t request, int32_t span) {
		return inner_[first_[static_cast<size_t>(request)] + static_cast<size_t>(span)];
	}

	void add_spans(int32_t at) {
		const TraceRequest &request = requests_[static_cast<size_t>(at)];
		const std::vector<Span> &spans = request.transaction->spans;
		if (request.caller_request >= 0 && request.forked_from < 0) {
			inner_of(request.caller_request, request.caller_span).push_back(node_of(at, 0));
		}
		for (size_t i = 1; i < spans.size(); i++) {
			int32_t outer = std::max(spans[i].parent, 0);
			for (int callers = 0; spans[i].is_async && outer > 0 && callers < kMostCallers &&
								  spans[static_cast<size_t>(outer)].start > spans[i].start;
				 callers++) {
				outer = std::max(spans[static_cast<size_t>(outer)].parent, 0);
			}
			inner_of(at, outer).push_back(node_of(at, static_cast<int32_t>(i)));
		}
	}

	void enter(const Node &node, Interval time) {
		open_.push_back({node, time.start, time.end, 0});
	}

	void go_on() {
		Open &open = open_.back();
		const std::vector<Node> &inner = inner_of(open.node.request, open.node.span);
		while (open.next < inner.size() && inner[open.next].time.start >= open.now) {
			open.next++;
		}
		bool has_more = open.next < inner.size() && inner[open.next].time.end > open.from;
		if (!has_more) {
			add_step(open.node, open.from, open.now);
			open_.pop_back();
			return;
		}
		Node next = inner[open.next++];
		Interval time = clipped(next.time, {open.from, open.now});
		add_step(open.node, time.end, open.now);
		open.now = time.start;
		enter(next, time);
	}

	void add_step(const Node &node, int64_t from, int64_t to) {
		if (from < to) {
			steps_.push_back({node.request, node.span, from, to});
		}
	}

	const std::vector<TraceRequest> &requests_;
	std::vector<size_t> first_; /* by request: where its spans begin in `inner_` */
	size_t count_ = 0;
	std::vector<std::vector<Node>> inner_; /* what each span has caused */
	std::vector<Open> open_;
	std::vector<PathStep> steps_;
};

} // namespace

std::vector<PathStep> critical_path_of(const std::vector<TraceRequest> &requests) {
	return requests.empty() ? std::vector<PathStep>() : Walk(requests).steps();
}

} // namespace kaq
