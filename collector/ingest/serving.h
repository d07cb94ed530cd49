/*
 * Finds out whether the process that recorded a request serves one request at a time: only then its
 * processor time tells what the request waited for. Asks the system, which knows only processes of
 * this host; a container has numbers of its own. One thread at a time.
 */
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "analysis/findings.h"

namespace kaq {

class ServingLookup {
public:
	/* `processes` is where the system tells of them. */
	explicit ServingLookup(std::string processes = "/proc");

	/* How the process of this thread serves; `now` in milliseconds. Looked up once a minute. */
	Serving of(int64_t thread, int64_t now);
	/* The process of this thread; 0 if that is not known. */
	int64_t process_of(int64_t thread, int64_t now);

private:
	struct Known {
		Serving serving = Serving::kUnknown;
		int64_t process = 0;
		int64_t since = 0;
	};

	const Known &known(int64_t thread, int64_t now);
	Known look_up(int64_t thread) const;

	const std::string processes_;
	std::unordered_map<int64_t, Known> known_;
};

} // namespace kaq
