#include "ingest/suspensions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include "util/log.h"
#include "util/query_string.h"
#include "util/unique_fd.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr size_t kMost = 1000;
constexpr size_t kFields = 4;

/* Fields stand between tabs, and what could be taken for one is written as in a form. */
std::string field_of(const std::string &text) {
	std::string field;
	for (char each : text) {
		auto byte = static_cast<unsigned char>(each);
		if (byte < ' ' || byte == 127 || each == '%' || each == '+') {
			field += '%';
			field += "0123456789ABCDEF"[byte >> 4];
			field += "0123456789ABCDEF"[byte & 15];
		} else {
			field += each;
		}
	}
	return field;
}

bool read_line(const std::string &line, Suspension &suspension) {
	std::vector<std::string> fields;
	for (size_t begin = 0; begin <= line.size() && fields.size() <= kFields;) {
		size_t end = std::min(line.find('\t', begin), line.size());
		fields.push_back(form_decoded(std::string_view(line).substr(begin, end - begin)));
		begin = end + 1;
	}
	if (fields.size() != kFields || fields[0].empty()) {
		return false;
	}
	suspension = {fields[1], fields[2], std::atoll(fields[0].c_str()), fields[3]};
	return true;
}

std::string line_of(const Suspension &suspension) {
	return std::to_string(suspension.since) + '\t' + field_of(suspension.application) + '\t' +
		   field_of(suspension.instance) + '\t' + field_of(suspension.reason) + '\n';
}

} // namespace

Suspensions::Suspensions(std::string file) : file_(std::move(file)) {
	struct stat facts;
	if (stat(file_.c_str(), &facts) == 0) {
		changed_ =
			static_cast<int64_t>(facts.st_mtim.tv_sec) * 1000 + facts.st_mtim.tv_nsec / 1000000;
	}
	std::ifstream lines(file_);
	Suspension suspension;
	for (std::string line; all_.size() < kMost && std::getline(lines, line);) {
		if (read_line(line, suspension)) {
			all_.push_back(suspension);
		}
	}
}

bool Suspensions::add(Suspension suspension) {
	std::lock_guard lock(mutex_);
	bool is_covered = std::any_of(all_.begin(), all_.end(), [&](const Suspension &each) {
		return each.covers(suspension.application, suspension.instance);
	});
	if (is_covered || all_.size() >= kMost) {
		return false;
	}
	all_.push_back(std::move(suspension));
	keep();
	return true;
}

std::vector<Suspension> Suspensions::resume(const std::string &application) {
	std::lock_guard lock(mutex_);
	auto stays = [&application](const Suspension &each) {
		return !application.empty() && each.application != application;
	};
	auto ended = std::stable_partition(all_.begin(), all_.end(), stays);
	std::vector<Suspension> resumed(std::make_move_iterator(ended),
									std::make_move_iterator(all_.end()));
	all_.erase(ended, all_.end());
	if (!resumed.empty()) {
		keep();
	}
	return resumed;
}

std::vector<Suspension> Suspensions::all() const {
	std::lock_guard lock(mutex_);
	return all_;
}

int64_t Suspensions::changed() const {
	std::lock_guard lock(mutex_);
	return changed_;
}

uint64_t Suspensions::version() const {
	std::lock_guard lock(mutex_);
	return version_;
}

/* The old file stays until the new one is whole. */
void Suspensions::keep() {
	version_++;
	changed_ = system_time();
	std::string text;
	for (const Suspension &each : all_) {
		text += line_of(each);
	}
	std::string next = file_ + ".new";
	UniqueFd fd(open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
	if (!fd || ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
		fsync(fd.get()) != 0 || rename(next.c_str(), file_.c_str()) != 0) {
		log_some(LogLevel::kError, "suspensions",
				 "cannot write " + file_ + ": a restart will forget what is not monitored");
	}
}

} // namespace kaq
