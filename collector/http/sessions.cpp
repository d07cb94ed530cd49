#include "http/sessions.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "http/access.h"
#include "util/random.h"
#include "util/row_file.h"

namespace kaq {
namespace {

constexpr size_t kBytes = 24;
constexpr size_t kFields = 2;
constexpr int64_t kLifetimeMs = std::chrono::milliseconds(Sessions::kLifetime).count();

} // namespace

Sessions::Sessions(std::string file, int64_t now) : file_(std::move(file)) {
	if (file_.empty()) {
		return;
	}
	for (const FileRow &row : read_rows(file_, kMost)) {
		int64_t ends =
			row.size() == kFields ? std::strtoll(row[1].c_str(), nullptr, 10) : int64_t{0};
		if (row[0].size() == 2 * kBytes && ends > now) {
			sessions_.push_back({row[0], ends});
		}
	}
}

std::string Sessions::begin(int64_t now) {
	std::string text = random_hex(kBytes);
	std::lock_guard lock(mutex_);
	auto dead = [now](const Session &each) { return each.ends <= now; };
	sessions_.erase(std::remove_if(sessions_.begin(), sessions_.end(), dead), sessions_.end());
	if (sessions_.size() >= kMost) {
		sessions_.pop_front();
	}
	sessions_.push_back({text, now + kLifetimeMs});
	if (!file_.empty()) {
		std::vector<FileRow> rows;
		for (const Session &each : sessions_) {
			rows.push_back({each.text, std::to_string(each.ends)});
		}
		write_rows(file_, rows);
	}
	return text;
}

bool Sessions::has(std::string_view session, int64_t now) const {
	std::lock_guard lock(mutex_);
	return std::any_of(sessions_.begin(), sessions_.end(), [session, now](const Session &each) {
		return each.ends > now && is_same_secret(session, each.text);
	});
}

std::string session_cookie(uint16_t port) {
	return "kaq_session_" + std::to_string(port);
}

} // namespace kaq
