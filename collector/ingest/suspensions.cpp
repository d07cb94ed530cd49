#include "ingest/suspensions.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "util/log.h"
#include "util/row_file.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr size_t kMost = 1000;
constexpr size_t kFields = 4;

bool read_row(const FileRow &row, Suspension &suspension) {
	if (row.size() != kFields || row[0].empty()) {
		return false;
	}
	suspension = {row[1], row[2], std::atoll(row[0].c_str()), row[3]};
	return true;
}

FileRow row_of(const Suspension &suspension) {
	return {std::to_string(suspension.since), suspension.application, suspension.instance,
			suspension.reason};
}

} // namespace

Suspensions::Suspensions(std::string file) : file_(std::move(file)) {
	struct stat facts;
	if (stat(file_.c_str(), &facts) == 0) {
		changed_ =
			static_cast<int64_t>(facts.st_mtim.tv_sec) * 1000 + facts.st_mtim.tv_nsec / 1000000;
	}
	Suspension suspension;
	for (const FileRow &row : read_rows(file_, kMost)) {
		if (read_row(row, suspension)) {
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

void Suspensions::keep() {
	version_++;
	changed_ = system_time();
	std::vector<FileRow> rows;
	for (const Suspension &each : all_) {
		rows.push_back(row_of(each));
	}
	if (!write_rows(file_, rows)) {
		log_some(LogLevel::kError, "suspensions",
				 "cannot write " + file_ + ": a restart will forget what is not monitored");
	}
}

} // namespace kaq
