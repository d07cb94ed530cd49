/*
 * Decides from crashes in the extension's code what is not to be monitored any more: three within
 * ten minutes are enough. A log names the process alone; what that process was comes from the
 * requests that it recorded before. Any thread.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "ingest/crash_log.h"
#include "ingest/serving.h"
#include "ingest/suspensions.h"
#include "model/transaction.h"

namespace kaq {

class CrashGuard {
public:
	static constexpr int64_t kWindow = 10 * 60 * 1000; /* milliseconds */
	static constexpr size_t kEnough = 3;

	/* `processes` is where the system tells of them. REQUIRES: the suspensions outlive the guard.
	 */
	explicit CrashGuard(Suspensions &suspensions, std::string processes = "/proc")
		: suspensions_(suspensions), serving_(std::move(processes)) {
	}

	/* Remembers whose process recorded it. */
	void note(const Transaction &transaction);
	/* What is suspended for it, if it is one too many: the instance that the process served last,
	 * or everything if that is not known of any. */
	std::optional<Suspension> take(const Crash &crash);

private:
	struct Owner {
		std::string application;
		std::string instance;

		bool operator==(const Owner &other) const {
			return application == other.application && instance == other.instance;
		}
		bool is_known() const {
			return !application.empty();
		}
	};
	struct Recent {
		int64_t time;
		Owner owner;
	};

	size_t count(const Owner &owner) const;
	/* Whom to suspend, if anybody: one without a name is everybody. */
	std::optional<Owner> blamed(const Owner &owner) const;
	void forget(const Owner &owner);

	Suspensions &suspensions_;
	std::mutex mutex_;
	ServingLookup serving_;
	std::unordered_map<int64_t, Owner> owners_; /* by process */
	std::deque<Recent> recent_;
};

} // namespace kaq
