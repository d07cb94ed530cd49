#include "store/part_counts.h"

#include <algorithm>

namespace kaq {

/* Counting takes long, and nobody waits for it meanwhile. */
std::optional<RowCounts> PartCounts::of(const std::string &path,
										const std::function<std::optional<RowCounts>()> &count) {
	uint64_t changes = 0;
	{
		std::lock_guard lock(mutex_);
		auto found = known_.find(path);
		if (found != known_.end()) {
			return found->second;
		}
		changes = changes_;
	}
	std::optional<RowCounts> counts = count();
	std::lock_guard lock(mutex_);
	if (counts && changes == changes_) {
		known_.emplace(path, *counts);
	}
	return counts;
}

void PartCounts::set(const std::string &path, RowCounts counts) {
	std::lock_guard lock(mutex_);
	known_[path] = counts;
}

void PartCounts::forget(const std::string &path) {
	std::lock_guard lock(mutex_);
	known_.erase(path);
	changes_++;
}

void PartCounts::keep_only(const std::vector<std::string> &paths) {
	std::lock_guard lock(mutex_);
	for (auto each = known_.begin(); each != known_.end();) {
		bool is_kept = std::find(paths.begin(), paths.end(), each->first) != paths.end();
		each = is_kept ? std::next(each) : known_.erase(each);
	}
}

} // namespace kaq
