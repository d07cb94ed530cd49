#include "ingest/crash_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/unique_fd.h"
#include "util/utf8.h"

namespace kaq {
namespace {

constexpr std::string_view kBegin = "KAQ CRASH Signal ";
constexpr std::string_view kAddress = "KAQ CRASH address = ";
constexpr std::string_view kFrame = "Trace ";
constexpr std::string_view kFileBegin = "kaqcrash-";
constexpr std::string_view kFileEnd = ".log";
/* A log of one crash has 2 to 4 KiB. */
constexpr size_t kMostBytes = 64 * 1024;
constexpr size_t kMostLogs = 10000;
/* The handler and the way in which the system got there. */
constexpr size_t kFramesOfHandler = 2;
constexpr size_t kLongestPlace = 200;
/* A log is written at once. */
constexpr int64_t kSettled = 1000;

struct Frame {
	std::string_view file;
	std::string_view symbol; /* "(+0xb23e)" */
	std::string_view address;
};

bool begins_with(std::string_view text, std::string_view begin) {
	return text.substr(0, begin.size()) == begin;
}

std::string_view name_of(std::string_view path) {
	return path.substr(path.rfind('/') + 1);
}

/* Of "FILE(SYMBOL+OFFSET) [ADDRESS]"; a file may have brackets in its own name. */
Frame frame_of(std::string_view text) {
	Frame frame;
	size_t address = text.rfind('[');
	if (address != std::string_view::npos) {
		frame.address = text.substr(address + 1);
		frame.address = frame.address.substr(0, frame.address.find(']'));
		text = text.substr(0, address);
	}
	size_t symbol = text.rfind('(');
	if (symbol != std::string_view::npos) {
		frame.symbol = text.substr(symbol, text.rfind(')') + 1 - symbol);
		frame.file = name_of(text.substr(0, symbol));
	}
	return frame;
}

/* What everything else calls: what is wrong is in its caller. */
bool is_system_library(std::string_view file) {
	for (std::string_view each : {"libc.", "libc-", "libpthread", "ld-linux", "libstdc++", "libgcc",
								  "libm.", "libm-", "linux-vdso", "linux-gate", "ld-musl"}) {
		if (begins_with(file, each)) {
			return true;
		}
	}
	return file.empty();
}

/* "kaq.so", or with the number of the engine's interface, "kaq20220829.so". */
bool is_extension(std::string_view file) {
	constexpr std::string_view name = "kaq";
	if (!begins_with(file, name)) {
		return false;
	}
	size_t end = file.find_first_not_of("0123456789", name.size());
	return end != std::string_view::npos && file.substr(end) == ".so";
}

class LogReader {
public:
	void take(std::string_view line) {
		if (begins_with(line, kBegin)) {
			finish();
			is_in_crash_ = true;
			crash_.signal = std::atoi(std::string(line.substr(kBegin.size(), 4)).c_str());
		} else if (begins_with(line, kAddress)) {
			address_ = line.substr(kAddress.size());
		} else if (begins_with(line, kFrame)) {
			frames_.push_back(frame_of(line.substr(kFrame.size())));
		}
	}

	std::vector<Crash> end() {
		finish();
		return std::move(crashes_);
	}

private:
	/* The frame of the instruction that was running, else the first one behind the handler. */
	size_t top() const {
		for (size_t i = 0; i < frames_.size() && address_.size() > 1; i++) {
			std::string_view address = frames_[i].address;
			if (address.size() > address_.size() &&
				address.substr(address.size() - address_.size()) == address_) {
				return i;
			}
		}
		return std::min(kFramesOfHandler, frames_.size());
	}

	void finish() {
		if (is_in_crash_) {
			size_t i = top();
			while (i < frames_.size() && is_system_library(frames_[i].file)) {
				i++;
			}
			if (i < frames_.size()) {
				crash_.is_ours = is_extension(frames_[i].file);
				crash_.place = replace_invalid_utf8(
					(std::string(frames_[i].file) + std::string(frames_[i].symbol))
						.substr(0, kLongestPlace));
			}
			crashes_.push_back(std::move(crash_));
		}
		crash_ = Crash();
		frames_.clear();
		address_ = {};
		is_in_crash_ = false;
	}

	std::vector<Crash> crashes_;
	Crash crash_;
	bool is_in_crash_ = false;
	std::string_view address_; /* the low half */
	std::vector<Frame> frames_;
};

/* The process's id of "kaqcrash-123.log"; 0 if it is no such name. */
int64_t process_of(std::string_view name) {
	if (name.size() <= kFileBegin.size() + kFileEnd.size() || !begins_with(name, kFileBegin) ||
		name.substr(name.size() - kFileEnd.size()) != kFileEnd) {
		return 0;
	}
	name.remove_prefix(kFileBegin.size());
	name.remove_suffix(kFileEnd.size());
	bool is_number = name.size() < 12 && std::all_of(name.begin(), name.end(), [](char each) {
						 return each >= '0' && each <= '9';
					 });
	return is_number ? std::atoll(std::string(name).c_str()) : 0;
}

int64_t milliseconds_of(const timespec &time) {
	return static_cast<int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

} // namespace

std::vector<Crash> read_crash_log(std::string_view text) {
	LogReader reader;
	while (!text.empty()) {
		size_t end = std::min(text.find('\n'), text.size());
		reader.take(text.substr(0, end));
		text.remove_prefix(std::min(end + 1, text.size()));
	}
	return reader.end();
}

std::vector<Crash> CrashLogs::look(int64_t now, int64_t age) {
	std::vector<Crash> crashes;
	since_ = now - age;
	found_.clear();
	seen_.clear();
	for (const std::string &directory : directories_) {
		look_into(directory, now, crashes);
	}
	known_ = std::move(seen_);
	is_first_ = false;
	std::stable_sort(crashes.begin(), crashes.end(),
					 [](const Crash &left, const Crash &right) { return left.time < right.time; });
	return crashes;
}

void CrashLogs::look_into(const std::string &directory, int64_t now, std::vector<Crash> &crashes) {
	CrashDirectory found;
	found.path = directory;
	std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory.c_str()), closedir);
	found.is_there = entries || errno != ENOENT;
	if (!entries && found.is_there) {
		found.mistake = strerror(errno);
	}
	for (const dirent *entry = nullptr; entries && (entry = readdir(entries.get()));) {
		int64_t process = process_of(entry->d_name);
		if (process > 0 && found.logs < kMostLogs) {
			found.logs++;
			look_at(directory + "/" + entry->d_name, process, now, crashes);
		} else if (process > 0) {
			found.others++;
		}
	}
	found_.push_back(std::move(found));
}

void CrashLogs::look_at(const std::string &path, int64_t process, int64_t now,
						std::vector<Crash> &crashes) {
	struct stat file;
	if (lstat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) {
		return;
	}
	auto earlier = known_.find(path);
	Log log = earlier == known_.end() ? Log() : earlier->second;
	int64_t time = milliseconds_of(file.st_mtim);
	if (file.st_size < log.bytes) {
		log = Log();
	}
	bool is_settled = time > now || now - time >= kSettled;
	if (file.st_size > log.bytes && is_settled) {
		int64_t begin = std::max(log.bytes, file.st_size - static_cast<int64_t>(kMostBytes));
		UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
		std::string text(static_cast<size_t>(file.st_size - begin), '\0');
		bool is_new = !is_first_ || time >= since_;
		ssize_t count =
			fd && is_new ? pread(fd.get(), text.data(), text.size(), static_cast<off_t>(begin)) : 0;
		text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
		std::vector<Crash> added = read_crash_log(text);
		/* When the earlier ones of a log happened is not known. */
		size_t from = is_first_ && !added.empty() ? added.size() - 1 : 0;
		for (size_t i = from; i < added.size(); i++) {
			added[i].process = process;
			added[i].time = std::min(time, now);
			crashes.push_back(std::move(added[i]));
		}
		log.bytes = file.st_size;
		log.time = time;
	}
	seen_[path] = log;
}

} // namespace kaq
