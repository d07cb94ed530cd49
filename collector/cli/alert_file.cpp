#include "cli/alert_file.h"

#include <cstdlib>

#include <fmt/format.h>

namespace kaq {
namespace {

constexpr size_t kMostRows = 100000;
/* Their first fields, and how many they have. */
constexpr const char *kLast = "last";
constexpr size_t kLastFields = 2;
constexpr const char *kState = "state";
constexpr size_t kStateFields = 10;
constexpr const char *kPost = "post";
constexpr size_t kPostFields = 3;

int64_t number(const std::string &text) {
	return std::strtoll(text.c_str(), nullptr, 10);
}

FileRow row_of(const AlertState &state) {
	return {kState,
			state.rule,
			state.application,
			state.transaction,
			std::to_string(state.out_since),
			std::to_string(state.in_since),
			std::to_string(state.requests),
			state.is_said ? "1" : "0",
			fmt::format("{}", state.usual.low),
			fmt::format("{}", state.usual.high)};
}

AlertState state_of(const FileRow &row) {
	AlertState state;
	state.rule = row[1];
	state.application = row[2];
	state.transaction = row[3];
	state.out_since = number(row[4]);
	state.in_since = number(row[5]);
	state.requests = number(row[6]);
	state.is_said = row[7] == "1";
	state.usual.low = std::strtod(row[8].c_str(), nullptr);
	state.usual.high = std::strtod(row[9].c_str(), nullptr);
	return state;
}

} // namespace

std::vector<FileRow> rows_of(const KeptAlerts &kept) {
	std::vector<FileRow> rows = {{kLast, std::to_string(kept.memory.last)}};
	for (const AlertState &state : kept.memory.states) {
		rows.push_back(row_of(state));
	}
	for (const Webhook::Post &post : kept.posts) {
		rows.push_back({kPost, post.url, post.body});
	}
	return rows;
}

KeptAlerts read_alerts(const std::string &file) {
	KeptAlerts kept;
	for (const FileRow &row : read_rows(file, kMostRows)) {
		if (row[0] == kLast && row.size() == kLastFields) {
			kept.memory.last = number(row[1]);
		} else if (row[0] == kState && row.size() == kStateFields) {
			kept.memory.states.push_back(state_of(row));
		} else if (row[0] == kPost && row.size() == kPostFields) {
			kept.posts.push_back({row[1], row[2]});
		}
	}
	return kept;
}

} // namespace kaq
