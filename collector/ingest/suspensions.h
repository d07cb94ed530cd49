/*
 * What is not monitored any more because it crashed, until somebody resumes it. Kept in a file, so
 * that a restart does not forget it. Any thread.
 */
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kaq {

struct Suspension {
	std::string application; /* empty: all of them */
	std::string instance;    /* empty: all of the application's */
	int64_t since = 0;       /* milliseconds since the Unix epoch */
	std::string reason;

	bool covers(const std::string &of_application, const std::string &of_instance) const {
		return application.empty() ||
			   (application == of_application && (instance.empty() || instance == of_instance));
	}
};

class Suspensions {
public:
	/* Reads the file, if it is there. Lines that cannot be read are left out. */
	explicit Suspensions(std::string file);

	/* False if it is covered already, or there are too many. */
	bool add(Suspension suspension);
	/* Those of the application, or all if it is empty; returns what was ended. One that covers all
	 * applications ends only with all. */
	std::vector<Suspension> resume(const std::string &application);
	std::vector<Suspension> all() const;
	/* When something was added or resumed last, also before a restart; 0: never. Milliseconds since
	 * the Unix epoch. */
	int64_t changed() const;
	/* Grows with each change. */
	uint64_t version() const;

private:
	void keep();

	const std::string file_;
	mutable std::mutex mutex_;
	std::vector<Suspension> all_;
	int64_t changed_ = 0;
	uint64_t version_ = 0;
};

} // namespace kaq
