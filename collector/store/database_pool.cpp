#include "store/database_pool.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>

#include "store/schema.h"

namespace kaq {
namespace {

FileIdentity identity_of(const std::string &path) {
	struct stat info;
	if (stat(path.c_str(), &info) != 0) {
		return {};
	}
	return {info.st_dev, info.st_ino};
}

} // namespace

DatabasePool::Lease DatabasePool::lease(const std::string &path) {
	/* Another file may have the name by now. */
	FileIdentity identity = identity_of(path);
	{
		std::lock_guard lock(mutex_);
		auto found = std::find_if(idle_.begin(), idle_.end(), [&](const Idle &idle) {
			return idle.path == path && idle.identity.number == identity.number &&
				   idle.identity.device == identity.device;
		});
		if (found != idle_.end()) {
			Idle one = std::move(*found);
			idle_.erase(found);
			return {*this, std::move(one)};
		}
	}
	return {*this, {path, open_to_read(path), identity}};
}

void DatabasePool::forget(const std::string &path) {
	std::lock_guard lock(mutex_);
	idle_.remove_if([&path](const Idle &idle) { return idle.path == path; });
}

void DatabasePool::give_back(Idle &&one) {
	/* What was opened while nobody could write may not notice that somebody can. */
	if (sqlite3_db_readonly(one.database->getHandle(), "main") == 1) {
		return;
	}
	std::lock_guard lock(mutex_);
	idle_.push_front(std::move(one));
	while (idle_.size() > most_) {
		idle_.pop_back();
	}
}

} // namespace kaq
