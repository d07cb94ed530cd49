/*
 * Finds in its logs when a PHP process has crashed, and whether the extension's code was running.
 * The directories are written to by the site's processes: nothing in them is believed to be what
 * it should be. One thread at a time.
 */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kaq {

/* Where the extension writes them. */
constexpr const char *kCrashDirectory = "/opt/kaq/logs/crash";

struct Crash {
	int64_t process = 0;
	int64_t time = 0; /* milliseconds since the Unix epoch, by the log's file */
	int signal = 0;
	bool is_ours = false; /* the extension is what was running */
	std::string place;    /* the frame on top, "kaq.so(+0xb23e)"; empty if there is none */
};

/* The crashes that a log tells of, the oldest first, without process and time. */
std::vector<Crash> read_crash_log(std::string_view text);

struct CrashDirectory {
	std::string path;
	std::string mistake; /* why it cannot be read; empty if it can, or is not there */
	bool is_there = false;
	size_t logs = 0;
	size_t others = 0; /* logs beyond those that are looked at */
};

class CrashLogs {
public:
	explicit CrashLogs(std::vector<std::string> directories)
		: directories_(std::move(directories)) {
	}

	/* What was added since the last call, the oldest first; at the first call what is not older
	 * than `age` milliseconds, and of each log the last one. Logs that are still being written are
	 * left for the next call. */
	std::vector<Crash> look(int64_t now, int64_t age);
	/* As they were at the last call. */
	const std::vector<CrashDirectory> &directories() const {
		return found_;
	}

private:
	struct Log {
		int64_t bytes = 0; /* that were read */
		int64_t time = 0;
	};

	void look_into(const std::string &directory, int64_t now, std::vector<Crash> &crashes);
	void look_at(const std::string &path, int64_t process, int64_t now,
				 std::vector<Crash> &crashes);

	const std::vector<std::string> directories_;
	std::vector<CrashDirectory> found_;
	std::map<std::string, Log> known_; /* by path */
	std::map<std::string, Log> seen_;  /* in this look */
	bool is_first_ = true;
	int64_t since_ = 0;
};

} // namespace kaq
