#include "util/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "util/control_character.h"

namespace kaq {
namespace {

constexpr std::chrono::minutes kWindow{1};
constexpr uint64_t kMostInAWindow = 10;

/* The journal tells the device and the inode of what it reads. */
bool is_journal(int fd) {
	const char *stream = std::getenv("JOURNAL_STREAM");
	struct stat file;
	return stream && fstat(fd, &file) == 0 &&
		   std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino) == stream;
}

struct Logger {
	bool is_of_journal = is_journal(STDERR_FILENO);
	spdlog::logger lines{"kaq", std::make_shared<spdlog::sinks::stderr_sink_mt>()};

	Logger() {
		/* The journal knows the time, and takes the level from the line's beginning. */
		lines.set_pattern(is_of_journal ? "%v" : "%Y-%m-%d %H:%M:%S kaq: %v");
		lines.flush_on(spdlog::level::info);
	}
};

const char *prefix_of(LogLevel level, bool is_of_journal) {
	switch (level) {
	case LogLevel::kError:
		return is_of_journal ? "<3>" : "error: ";
	case LogLevel::kWarning:
		return is_of_journal ? "<4>" : "warning: ";
	case LogLevel::kInfo:
		break;
	}
	return is_of_journal ? "<6>" : "";
}

} // namespace

std::optional<uint64_t> LogLimiter::allow(const std::string &name, Clock::time_point now) {
	std::lock_guard lock(mutex_);
	Kind &kind = kinds_.try_emplace(name, Kind{now, 0, 0}).first->second;
	if (now - kind.begin >= kWindow) {
		kind.begin = now;
		kind.said = 0;
	}
	if (kind.said == kMostInAWindow) {
		kind.left_out++;
		return std::nullopt;
	}
	kind.said++;
	return std::exchange(kind.left_out, 0);
}

void log_line(LogLevel level, std::string_view text) {
	static Logger logger;
	std::string line = prefix_of(level, logger.is_of_journal) + std::string(text);
	std::replace_if(line.begin(), line.end(), is_control_character, '?');
	logger.lines.log(spdlog::level::info, spdlog::string_view_t(line));
}

void log_some(LogLevel level, const std::string &kind, std::string_view text) {
	static LogLimiter limiter;
	std::optional<uint64_t> left_out = limiter.allow(kind, LogLimiter::Clock::now());
	if (!left_out) {
		return;
	}
	std::string line(text);
	if (*left_out > 0) {
		line += " (" + std::to_string(*left_out) + " lines of this kind were left out before)";
	}
	log_line(level, line);
}

} // namespace kaq
