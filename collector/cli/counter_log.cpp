#include "cli/counter_log.h"

#include "util/log.h"

namespace kaq {

void CounterLog::add(std::string text, std::function<uint64_t()> counter) {
	uint64_t now = counter();
	entries_.push_back({std::move(text), std::move(counter), now});
}

void CounterLog::look() {
	for (Entry &entry : entries_) {
		uint64_t now = entry.counter();
		if (now != entry.said) {
			log_some(LogLevel::kWarning, entry.text,
					 std::to_string(now - entry.said) + " " + entry.text);
			entry.said = now;
		}
	}
}

std::map<std::string, uint64_t> CounterLog::counts() const {
	std::map<std::string, uint64_t> counts;
	for (const Entry &entry : entries_) {
		if (uint64_t now = entry.counter()) {
			counts[entry.text] = now;
		}
	}
	return counts;
}

} // namespace kaq
