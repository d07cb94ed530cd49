/*
 * What the collector says while it runs: lines on stderr, in the journal's form where stderr is the
 * journal. Any thread; the handshake thread says nothing.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kaq {

enum class LogLevel { kInfo, kWarning, kError };

/* Bounds how often a line of a kind is said. Any thread. */
class LogLimiter {
public:
	using Clock = std::chrono::steady_clock;

	/* How many were left out since the last one that was said; nothing if this one is to be left
	 * out too. */
	std::optional<uint64_t> allow(const std::string &name, Clock::time_point now);

private:
	struct Kind {
		Clock::time_point begin;
		uint64_t said = 0;
		uint64_t left_out = 0;
	};

	std::mutex mutex_;
	std::map<std::string, Kind> kinds_; /* each is a text of the program */
};

/* A line as it is; control characters in it are replaced. */
void log_line(LogLevel level, std::string_view text);
/* No more than ten a minute of each kind, and how many were left out in between. */
void log_some(LogLevel level, const std::string &kind, std::string_view text);

} // namespace kaq
