/* Says in the log how far counters of what went wrong have grown. One thread. */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kaq {

class CounterLog {
public:
	/* `text` follows the number: "payloads were dropped". */
	void add(std::string text, std::function<uint64_t()> counter);
	/* A line for each that has grown since the last call. */
	void look();
	/* All that are not 0, by their texts. */
	std::map<std::string, uint64_t> counts() const;

private:
	struct Entry {
		std::string text;
		std::function<uint64_t()> counter;
		uint64_t said;
	};

	std::vector<Entry> entries_;
};

} // namespace kaq
