#include "ingest/crash_guard.h"

#include <algorithm>

namespace kaq {
namespace {

constexpr size_t kMostProcesses = 10000;
constexpr size_t kMostRecent = 1000;

} // namespace

void CrashGuard::note(const Transaction &transaction) {
	if (transaction.thread <= 0 || transaction.application.empty()) {
		return;
	}
	std::lock_guard lock(mutex_);
	int64_t process = serving_.process_of(transaction.thread, transaction.end);
	if (owners_.size() >= kMostProcesses) {
		owners_.clear();
	}
	Owner &owner = owners_[process > 0 ? process : transaction.thread];
	if (owner.application != transaction.application || owner.instance != transaction.instance_id) {
		owner.application = transaction.application;
		owner.instance = transaction.instance_id;
	}
}

std::optional<Suspension> CrashGuard::take(const Crash &crash) {
	if (!crash.is_ours) {
		return std::nullopt;
	}
	std::lock_guard lock(mutex_);
	auto found = owners_.find(crash.process);
	Owner owner = found == owners_.end() ? Owner() : found->second;
	recent_.push_back({crash.time, owner});
	while (recent_.size() > kMostRecent || crash.time - recent_.front().time > kWindow) {
		recent_.pop_front();
	}
	std::optional<Owner> whom = blamed(owner);
	if (!whom) {
		return std::nullopt;
	}
	Suspension suspension;
	suspension.application = whom->application;
	suspension.instance = whom->instance;
	suspension.since = crash.time;
	suspension.reason = std::to_string(count(*whom)) +
						" crashes within ten minutes in the extension, the last one at " +
						crash.place;
	forget(*whom);
	bool is_new = suspensions_.add(suspension);
	return is_new ? std::optional(std::move(suspension)) : std::nullopt;
}

/* Those of processes that nobody knows count for everybody. */
size_t CrashGuard::count(const Owner &owner) const {
	return static_cast<size_t>(
		std::count_if(recent_.begin(), recent_.end(), [&owner](const Recent &each) {
			return each.owner == owner || !each.owner.is_known();
		}));
}

std::optional<CrashGuard::Owner> CrashGuard::blamed(const Owner &owner) const {
	if (owner.is_known()) {
		return count(owner) >= kEnough ? std::optional(owner) : std::nullopt;
	}
	for (const Recent &each : recent_) {
		if (each.owner.is_known() && count(each.owner) >= kEnough) {
			return each.owner;
		}
	}
	return count(owner) >= kEnough ? std::optional(owner) : std::nullopt;
}

void CrashGuard::forget(const Owner &owner) {
	recent_.erase(std::remove_if(recent_.begin(), recent_.end(),
								 [&owner](const Recent &each) {
									 return each.owner == owner || !each.owner.is_known();
								 }),
				  recent_.end());
}

} // namespace kaq
