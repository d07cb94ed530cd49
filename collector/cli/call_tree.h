/*
 * The calls of one request, or of several that called each other, as people read them: calls that
 * do the same under the same caller are one node, and so are those that tell nothing one by one.
 * No state; any thread.
 */
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace kaq {

/* Times in milliseconds; `from` and `to` since the begin of all. */
struct CallNode {
	std::string label; /* printable */
	std::string layer; /* as the services name it; "service" for a request within a trace */
	int64_t count = 1; /* calls that it stands for */
	int64_t total = 0;
	int64_t own = 0;
	int64_t from = 0;
	int64_t to = 0;
	bool is_failed = false;
	bool is_summed_up = false; /* it stands for calls of several kinds that were left out */
	std::vector<std::string> failures;
	std::vector<std::pair<int64_t, int64_t>> held_up; /* when nothing but itself went on */
	std::vector<CallNode> children;
};

/* At most that many levels; what is deeper is one node. */
constexpr size_t kDeepestTree = 100;

/* `answer` is that of /api/v1/trace, or of /api/v1/request with spans. */
std::vector<CallNode> call_trees(const nlohmann::json &answer);

/* Sums up small calls until about `rows` are left; never failures, requests of other services, and
 * the calls that lead to them. */
void prune(std::vector<CallNode> &trees, size_t rows);

/* Of rows that are shown for them. */
size_t count_rows(const std::vector<CallNode> &trees);

} // namespace kaq
