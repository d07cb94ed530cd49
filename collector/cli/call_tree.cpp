#include "cli/call_tree.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "cli/format.h"

namespace kaq {
namespace {

using nlohmann::json;

/* Fewer calls that do the same stand for themselves. */
constexpr size_t kFewestAlike = 3;

struct Ref {
	size_t request;
	size_t span;
};

std::string text(const json &object, const char *name) {
	return object.value(name, std::string());
}

int64_t number(const json &object, const char *name) {
	return object.value(name, int64_t{0});
}

class TreeBuilder {
public:
	explicit TreeBuilder(const json &answer) {
		if (answer.contains("requests")) {
			for (const json &request : answer.at("requests")) {
				add_request(request);
			}
		} else {
			add_request(answer);
		}
		is_trace_ = requests_.size() > 1;
		for (const json *request : requests_) {
			if (request->contains("caller")) {
				mark_leading(request->at("caller"));
			}
		}
		for (const json &step : answer.value("critical_path", json::array())) {
			Ref ref{step.value("request", size_t{0}), step.value("span", size_t{0})};
			held_up_[key(ref)].emplace_back(number(step, "from_ms"), number(step, "to_ms"));
		}
	}

	std::vector<CallNode> build() const {
		std::vector<CallNode> trees;
		for (size_t i = 0; i < requests_.size(); i++) {
			if (!requests_[i]->contains("caller")) {
				trees.push_back(node_of({{i, 0}}, 1));
			}
		}
		return trees;
	}

private:
	static uint64_t key(Ref ref) {
		return uint64_t{ref.request} << 32 | ref.span;
	}

	void add_request(const json &request) {
		if (!request.contains("spans")) {
			return;
		}
		size_t at = requests_.size();
		requests_.push_back(&request);
		const json &spans = request.at("spans");
		std::vector<bool> is_repeated(spans.size(), false);
		for (size_t span : request.value("repeated_spans", std::vector<size_t>())) {
			is_repeated.at(span) = true;
		}
		for (size_t i = 0; i < spans.size(); i++) {
			int64_t parent = number(spans[i], "parent");
			if (parent >= 0 && i > 0 && !is_repeated[i]) {
				children_[key({at, static_cast<size_t>(parent)})].push_back({at, i});
			}
		}
		if (request.contains("caller")) {
			const json &caller = request.at("caller");
			children_[key({caller.at("request"), caller.at("span")})].push_back({at, 0});
		}
	}

	/* A call that another service's request came from, and the calls around it. */
	void mark_leading(const json &caller) {
		Ref ref{caller.at("request"), caller.at("span")};
		while (leading_.insert(key(ref)).second && number(span(ref), "parent") >= 0) {
			ref.span = static_cast<size_t>(number(span(ref), "parent"));
		}
	}

	bool leads_to_service(Ref ref) const {
		return leading_.count(key(ref)) > 0;
	}

	const json &span(Ref ref) const {
		return requests_[ref.request]->at("spans")[ref.span];
	}

	int64_t start_of(Ref ref) const {
		return number(*requests_[ref.request], "start_ms") + number(span(ref), "start_ms");
	}

	/* Of several alike what they share. */
	std::string label_of(Ref ref, bool is_one) const {
		const json &call = span(ref);
		if (ref.span == 0 && is_trace_) {
			const json &request = requests_[ref.request]->at("request");
			return text(request, "application") + "  " + text(request, "method") + " " +
				   text(request, "path");
		}
		if (call.contains("statement")) {
			return text(call, "statement");
		}
		std::string host = text(call, "host");
		if (call.contains("endpoint")) {
			int64_t status = number(call, "status");
			host = is_one ? host : text(call, "endpoint");
			return host + (status > 0 ? " \u2192 " + std::to_string(status) : " \u2192 failed");
		}
		return text(call, "name") + (host.empty() ? "" : "  " + host);
	}

	CallNode node_of(const std::vector<Ref> &alike, size_t depth) const {
		CallNode node;
		node.label = printable(label_of(alike.front(), alike.size() == 1));
		bool is_service = alike.front().span == 0 && is_trace_;
		node.layer = is_service ? "service" : text(span(alike.front()), "layer");
		sum_up(node, alike);
		add_children(node, alike, depth);
		return node;
	}

	void sum_up(CallNode &node, const std::vector<Ref> &calls) const {
		node.count = static_cast<int64_t>(calls.size());
		node.from = start_of(calls.front());
		for (Ref ref : calls) {
			const json &call = span(ref);
			int64_t start = start_of(ref);
			node.total += number(call, "duration_ms");
			node.own += number(call, "self_ms");
			node.from = std::min(node.from, start);
			node.to = std::max(node.to, start + number(call, "duration_ms"));
			node.is_failed = node.is_failed || call.value("failed", false);
			for (const json &failure : call.value("failures", json::array())) {
				node.failures.push_back(failure_text(failure));
			}
			auto held = held_up_.find(key(ref));
			if (held != held_up_.end()) {
				node.held_up.insert(node.held_up.end(), held->second.begin(), held->second.end());
			}
		}
	}

	static std::string failure_text(const json &failure) {
		std::string type = text(failure, "type");
		std::string level = text(failure, "level");
		std::string place = text(failure, "file");
		size_t slash = place.rfind('/');
		place = slash == std::string::npos ? place : place.substr(slash + 1);
		if (number(failure, "line") > 0) {
			place += ":" + std::to_string(number(failure, "line"));
		}
		return printable((type == "ERROR" && !level.empty() ? level : type) + ": " +
						 text(failure, "message") + (place.empty() ? "" : " (" + place + ")"));
	}

	void add_children(CallNode &node, const std::vector<Ref> &callers, size_t depth) const {
		std::vector<Ref> calls;
		for (Ref caller : callers) {
			auto found = children_.find(key(caller));
			if (found != children_.end()) {
				calls.insert(calls.end(), found->second.begin(), found->second.end());
			}
		}
		if (calls.empty()) {
			return;
		}
		if (depth >= kDeepestTree) {
			node.children.push_back(deeper_node(calls, depth));
			return;
		}
		std::stable_sort(calls.begin(), calls.end(),
						 [this](Ref one, Ref other) { return start_of(one) < start_of(other); });
		add_silent(node, calls);
		for (const std::vector<Ref> &alike : alike_of(calls, callers.size() > 1)) {
			node.children.push_back(node_of(alike, depth + 1));
		}
		std::stable_sort(
			node.children.begin(), node.children.end(),
			[](const CallNode &one, const CallNode &other) { return one.from < other.from; });
	}

	/* What is too deep, as one node above the services that were called there. */
	CallNode deeper_node(const std::vector<Ref> &calls, size_t depth) const {
		CallNode deeper;
		sum_up(deeper, calls);
		deeper.label = "deeper calls";
		deeper.is_summed_up = true;
		std::vector<Ref> inside = calls;
		while (!inside.empty()) {
			Ref ref = inside.back();
			inside.pop_back();
			if (ref.span == 0) {
				deeper.children.push_back(node_of({ref}, depth + 1));
			} else if (leads_to_service(ref)) {
				const std::vector<Ref> &next = children_.at(key(ref));
				inside.insert(inside.end(), next.begin(), next.end());
			}
		}
		std::stable_sort(
			deeper.children.begin(), deeper.children.end(),
			[](const CallNode &one, const CallNode &other) { return one.from < other.from; });
		return deeper;
	}

	/* Takes the calls out that tell nothing one by one, and adds a node for each kind. */
	void add_silent(CallNode &node, std::vector<Ref> &calls) const {
		std::map<std::string, std::vector<Ref>> silent;
		std::vector<Ref> others;
		for (Ref ref : calls) {
			std::string fold = text(span(ref), "fold");
			bool is_telling = fold.empty() || leads_to_service(ref);
			(is_telling ? others : silent[fold]).push_back(ref);
		}
		for (const auto &[fold, refs] : silent) {
			CallNode summed;
			sum_up(summed, refs);
			summed.layer = "http";
			summed.is_summed_up = true;
			summed.label = fold == "polls" ? "polls of transfers" : "calls that set up transfers";
			node.children.push_back(std::move(summed));
		}
		calls = std::move(others);
	}

	/* Calls of one shape together, where there are some; otherwise each for itself. */
	std::vector<std::vector<Ref>> alike_of(const std::vector<Ref> &calls, bool has_more) const {
		std::map<int64_t, std::vector<Ref>> shapes;
		for (Ref ref : calls) {
			shapes[shape_of(ref)].push_back(ref);
		}
		std::vector<std::vector<Ref>> groups;
		for (Ref ref : calls) {
			std::vector<Ref> &alike = shapes[shape_of(ref)];
			if (alike.size() < (has_more ? 1 : kFewestAlike)) {
				groups.push_back({ref});
			} else if (alike.front().request == ref.request && alike.front().span == ref.span) {
				groups.push_back(alike);
			}
		}
		return groups;
	}

	/* Shapes are numbered within a request. */
	int64_t shape_of(Ref ref) const {
		return static_cast<int64_t>(ref.request) << 32 | number(span(ref), "shape");
	}

	std::vector<const json *> requests_;
	std::unordered_map<uint64_t, std::vector<Ref>> children_;
	std::unordered_map<uint64_t, std::vector<std::pair<int64_t, int64_t>>> held_up_;
	std::unordered_set<uint64_t> leading_; /* calls within which another service was called */
	bool is_trace_ = false;
};

/* It or what it calls has to be seen, however short it is. */
bool is_notable(const CallNode &node) {
	return node.is_failed || !node.failures.empty() || node.layer == "service" ||
		   std::any_of(node.children.begin(), node.children.end(), is_notable);
}

int64_t calls_of(const CallNode &node) {
	int64_t calls = node.count;
	for (const CallNode &child : node.children) {
		calls += calls_of(child);
	}
	return calls;
}

void sum_up_small(CallNode &node, int64_t least) {
	CallNode rest;
	rest.count = 0;
	rest.label = "smaller calls";
	rest.is_summed_up = true;
	std::vector<CallNode> kept;
	std::vector<CallNode> small;
	for (CallNode &child : node.children) {
		bool is_small = child.total < least && !is_notable(child);
		(is_small ? small : kept).push_back(std::move(child));
	}
	if (small.size() == 1) {
		small.front().children.clear();
		kept.push_back(std::move(small.front()));
	} else if (!small.empty()) {
		rest.from = small.front().from;
		for (const CallNode &each : small) {
			rest.count += calls_of(each);
			rest.total += each.total;
			rest.own += each.total;
			rest.from = std::min(rest.from, each.from);
			rest.to = std::max(rest.to, each.to);
			rest.held_up.insert(rest.held_up.end(), each.held_up.begin(), each.held_up.end());
		}
		kept.push_back(std::move(rest));
	}
	node.children = std::move(kept);
	for (CallNode &child : node.children) {
		sum_up_small(child, least);
	}
}

} // namespace

std::vector<CallNode> call_trees(const json &answer) {
	return TreeBuilder(answer).build();
}

size_t count_rows(const std::vector<CallNode> &trees) {
	size_t rows = 0;
	for (const CallNode &node : trees) {
		rows += 1 + node.failures.size() + count_rows(node.children);
	}
	return rows;
}

void prune(std::vector<CallNode> &trees, size_t rows) {
	int64_t duration = 0;
	for (const CallNode &tree : trees) {
		duration = std::max(duration, tree.to);
	}
	/* Thousandths of the whole. */
	for (int64_t share : {1, 2, 5, 10, 20, 50}) {
		if (count_rows(trees) <= rows) {
			return;
		}
		for (CallNode &tree : trees) {
			sum_up_small(tree, std::max<int64_t>(1, duration * share / 1000));
		}
	}
}

} // namespace kaq
