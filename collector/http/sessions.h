/*
 * What browsers that were logged in bring as a cookie, in place of the token: a browser sends a
 * cookie to every port of the host, and so to whatever else is served there. A session opens this
 * collector alone, only as its cookie, and not for ever. Any thread.
 */
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

namespace kaq {

class Sessions {
public:
	static constexpr std::chrono::hours kLifetime{30 * 24};
	static constexpr size_t kMost = 100; /* the oldest end when more are begun */

	/* Those that the file holds go on, so that a restart logs nobody out; without a file, or where
	 * it cannot be written, they end with the object. Times are milliseconds since the epoch. */
	Sessions(std::string file, int64_t now);

	/* The cookie's value, which nobody can guess. */
	std::string begin(int64_t now);
	bool has(std::string_view session, int64_t now) const;

private:
	struct Session {
		std::string text;
		int64_t ends;
	};

	const std::string file_;
	mutable std::mutex mutex_;
	std::deque<Session> sessions_; /* oldest first */
};

/* Collectors of the same host have a cookie each. */
std::string session_cookie(uint16_t port);

} // namespace kaq
