#include "store/database_pool.h"

#include <algorithm>

#include "store/schema.h"

namespace kaq {

DatabasePool::Lease DatabasePool::lease(const std::string &path) {
	{
		std::lock_guard lock(mutex_);
		auto found = std::find_if(idle_.begin(), idle_.end(),
								  [&path](const Idle &idle) { return idle.path == path; });
		if (found != idle_.end()) {
			auto database = std::move(found->database);
			idle_.erase(found);
			return {*this, path, std::move(database)};
		}
	}
	return {*this, path, open_to_read(path)};
}

void DatabasePool::forget(const std::string &path) {
	std::lock_guard lock(mutex_);
	idle_.remove_if([&path](const Idle &idle) { return idle.path == path; });
}

void DatabasePool::give_back(std::string path, std::unique_ptr<SQLite::Database> database) {
	std::lock_guard lock(mutex_);
	idle_.push_front({std::move(path), std::move(database)});
	while (idle_.size() > most_) {
		idle_.pop_back();
	}
}

} // namespace kaq
