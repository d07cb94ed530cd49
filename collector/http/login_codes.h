/* Codes that log a browser in, each once and not for long. Any thread. */
#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <string>

namespace kaq {

class LoginCodes {
public:
	using Clock = std::chrono::steady_clock;

	static constexpr std::chrono::minutes kLifetime{5};
	static constexpr size_t kMost = 100; /* the oldest end when more are issued */

	std::string issue(Clock::time_point now = Clock::now());
	/* Whether it is one that was issued and not taken before; it is no more after that. */
	bool take(const std::string &code, Clock::time_point now = Clock::now());

private:
	struct Code {
		std::string text;
		Clock::time_point ends;
	};

	std::mutex mutex_;
	std::deque<Code> codes_; /* oldest first */
};

} // namespace kaq
