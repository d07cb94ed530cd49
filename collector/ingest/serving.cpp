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
	return known(thread, now).serving;
}

int64_t ServingLookup::process_of(int64_t thread, int64_t now) {
	return known(thread, now).process;
}

const ServingLookup::Known &ServingLookup::known(int64_t thread, int64_t now) {
	auto found = known_.find(thread);
	if (found != known_.end() && now >= found->second.since &&
		now - found->second.since < kMinute) {
		return found->second;
	}
	if (known_.size() >= kMostKnown) {
		known_.clear();
	}
	Known &entry = known_[thread];
	entry = look_up(thread);
	entry.since = now;
	return entry;
}

/* Another process may have that number in the collector's eyes, or may have got it since; what does
 * not call itself PHP is therefore not believed. */
ServingLookup::Known ServingLookup::look_up(int64_t thread) const {
	Known found;
	if (thread <= 0) {
		return found;
	}
	std::ifstream status(processes_ + "/" + std::to_string(thread) + "/status");
	int64_t threads = 0;
	bool is_php = false;
	for (std::string line; std::getline(status, line);) {
		is_php = is_php || line.compare(0, 9, "Name:\tphp") == 0;
		read_member(line, "Tgid:", found.process);
		read_member(line, "Threads:", threads);
	}
	if (is_php && found.process != 0 && threads != 0) {
		bool is_alone = found.process == thread && threads == 1;
		found.serving = is_alone ? Serving::kOneAtATime : Serving::kThreads;
	}
	return found;
}

} // namespace kaq
