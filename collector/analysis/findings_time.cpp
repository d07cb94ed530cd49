#include <algorithm>
#include <unordered_map>

#include "analysis/findings_private.h"

namespace kaq {
namespace {

/* The own time of a function of user code, in all its calls. */
struct Function {
	std::string_view name;
	int64_t time = 0;
	bool is_root = false;
};

/* The slowest first. */
std::vector<Function> functions_of(const Examined &request) {
	const std::vector<Span> &spans = request.transaction.spans;
	std::vector<int64_t> own = self_times(request.transaction);
	std::unordered_map<std::string_view, Function> by_name;
	for (size_t i = 0; i < spans.size(); i++) {
		if (layer_of(spans[i]) == Layer::kCode) {
			Function &function = by_name[spans[i].name];
			function.name = spans[i].name;
			function.time += std::min(own[i], request.time_of(static_cast<int32_t>(i)));
			function.is_root = function.is_root || i == 0;
		}
	}
	std::vector<Function> functions;
	functions.reserve(by_name.size());
	for (auto &entry : by_name) {
		functions.push_back(entry.second);
	}
	std::sort(functions.begin(), functions.end(), [](const Function &one, const Function &other) {
		return one.time != other.time ? one.time > other.time : one.name < other.name;
	});
	return functions;
}

class TimeFinder {
public:
	TimeFinder(const Examined &request, std::vector<Finding> &findings)
		: request_(request), findings_(findings),
		  worked_(std::max<int64_t>(request.transaction.cpu, 0)) {
		/* Of a script of the command line nobody waits for the answer, and it has its process for
		 * itself. */
		bool is_alone =
			request.options.serving == Serving::kOneAtATime || !request.transaction.is_web;
		if (is_alone) {
			int64_t code = time_of(layer_times(request.transaction), Layer::kCode);
			waiting_ = elapsed(worked_, code);
		}
	}

	void run() {
		bool may_wait = request_.transaction.is_web && request_.matters(waiting_, kWaits);
		if (!may_wait && request_.duration < kSlowFunction.least) {
			return;
		}
		functions_ = functions_of(request_);
		if (functions_.empty()) {
			return;
		}
		if (may_wait) {
			find_waiting();
		}
		/* Most of them are fast enough. */
		for (const Function &function : functions_) {
			if (function.time < kSlowFunction.least) {
				break;
			}
			find_slow(function);
		}
	}

private:
	/* All its calls; few functions are asked for theirs. */
	std::vector<int32_t> spans_of(const Function &function) const {
		const std::vector<Span> &spans = request_.transaction.spans;
		std::vector<int32_t> found;
		for (size_t i = 0; i < spans.size(); i++) {
			if (spans[i].name == function.name && layer_of(spans[i]) == Layer::kCode) {
				found.push_back(static_cast<int32_t>(i));
			}
		}
		return found;
	}

	/* Beyond the processor's time no code has worked: for certain the slowest function waits. */
	bool is_waiting(const Function &function) const {
		bool is_slowest = &function == &functions_.front();
		return is_slowest && elapsed(worked_, function.time) * 2 >= waiting_;
	}

	void find_waiting() {
		const Function &function = functions_.front();
		bool is_certain = is_waiting(function) && !function.is_root;
		std::string where = is_certain ? " in " + said(function.name) : "";
		findings_.push_back(make_finding(
			FindingKind::kWaiting,
			"Waiting" + where + ", neither working nor calling: " + request_.share(waiting_),
			waiting_, is_certain ? spans_of(function) : std::vector<int32_t>()));
	}

	void find_slow(const Function &function) {
		int64_t time = function.time - (is_waiting(function) ? waiting_ : 0);
		time = std::min(time, request_.duration);
		if (function.is_root && worked_ > 0) {
			/* No function is to blame, and no code has worked for longer than its process; where
			 * nothing is told of that, it is not known. */
			time = std::min(time, worked_);
		}
		if (!request_.matters(time, function.is_root ? kSlowMain : kSlowFunction)) {
			return;
		}
		std::vector<int32_t> spans = spans_of(function);
		std::string times =
			spans.size() == 1 ? "" : " in " + std::to_string(spans.size()) + " calls";
		std::string what =
			function.is_root ? "Code that is in no slow function" : said(function.name) + " itself";
		findings_.push_back(make_finding(FindingKind::kSlowCode,
										 what + times + ": " + request_.share(time), time, spans));
	}

	const Examined &request_;
	std::vector<Finding> &findings_;
	const int64_t worked_; /* the processor's time of the process */
	std::vector<Function> functions_;
	int64_t waiting_ = 0; /* 0 as well where that cannot be known */
};

} // namespace

void find_time(const Examined &request, std::vector<Finding> &findings) {
	TimeFinder(request, findings).run();
}

} // namespace kaq
