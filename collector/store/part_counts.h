/*
 * How many requests and documents each file of a store has, so that asking for it does not count
 * rows again. The thread that writes tells what it wrote; what it has not written to since the
 * start is counted by the first reader that wants to know. Any thread.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kaq {

struct RowCounts {
	int64_t requests = 0;
	int64_t documents = 0;
};

class PartCounts {
public:
	/* Those of this file, which `count` finds out if they are not known; nothing if it cannot. */
	std::optional<RowCounts> of(const std::string &path,
								const std::function<std::optional<RowCounts>()> &count);
	/* What the file holds from now on. The thread that writes. */
	void set(const std::string &path, RowCounts counts);
	/* The file was changed otherwise. */
	void forget(const std::string &path);
	/* Drops what is known of all other files. */
	void keep_only(const std::vector<std::string> &paths);

private:
	std::mutex mutex_;
	std::map<std::string, RowCounts> known_;
	uint64_t changes_ = 0; /* what was counted during one may be wrong */
};

} // namespace kaq
