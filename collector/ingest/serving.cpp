#include "ingest/serving.h"

#include <fstream>

namespace kaq {
namespace {

constexpr int64_t kMinute = 60 * 1000;
constexpr size_t kMostKnown = 10000;

/* Of a line such as "Tgid:\t123". */
bool read_member(const std::string &line, const std::string &name, int64_t &value) {
	if (line.compare(0, name.size(), name) != 0) {
		return false;
	}
	value = std::strtoll(line.c_str() + name.size(), nullptr, 10);
	return true;
}

} // namespace

ServingLookup::ServingLookup(std::string processes) : processes_(std::move(processes)) {
}

Serving ServingLookup::of(int64_t thread, int64_t now) {
	auto known = known_.find(thread);
	if (known != known_.end() && now >= known->second.since &&
		now - known->second.since < kMinute) {
		return known->second.serving;
	}
	if (known_.size() >= kMostKnown) {
		known_.clear();
	}
	Serving serving = look_up(thread);
	known_[thread] = {serving, now};
	return serving;
}

/* Another process may have that number in the collector's eyes, or may have got it since; what does
 * not call itself PHP is therefore not believed. */
Serving ServingLookup::look_up(int64_t thread) const {
	if (thread <= 0) {
		return Serving::kUnknown;
	}
	std::ifstream status(processes_ + "/" + std::to_string(thread) + "/status");
	int64_t process = 0;
	int64_t threads = 0;
	bool is_php = false;
	for (std::string line; std::getline(status, line);) {
		is_php = is_php || line.compare(0, 9, "Name:\tphp") == 0;
		read_member(line, "Tgid:", process);
		read_member(line, "Threads:", threads);
	}
	if (!is_php || process == 0 || threads == 0) {
		return Serving::kUnknown;
	}
	return process == thread && threads == 1 ? Serving::kOneAtATime : Serving::kThreads;
}

} // namespace kaq
