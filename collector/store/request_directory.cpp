#include "store/request_directory.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>

#include "store/schema.h"
#include "util/log.h"

namespace kaq {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "requests-";
constexpr std::string_view kAsidePrefix = "damaged-";
constexpr std::string_view kLost = "-lost-";
constexpr std::string_view kSuffix = ".sqlite";
constexpr size_t kMostDamages = 20;
/* They take room that requests could have. */
constexpr size_t kMostAsides = 5;
constexpr int64_t kAsideShare = 4;
/* A request is in a file that was begun after its start, but hardly by more than this. */
constexpr int64_t kLongestRequest = 10 * 60 * 1000;

/* What a name has between a prefix and ".sqlite"; empty if it is another. */
std::string_view between(std::string_view name, std::string_view prefix) {
	if (name.size() <= prefix.size() + kSuffix.size() || name.substr(0, prefix.size()) != prefix ||
		name.substr(name.size() - kSuffix.size()) != kSuffix) {
		return {};
	}
	name.remove_prefix(prefix.size());
	name.remove_suffix(kSuffix.size());
	return name;
}

bool to_number(std::string_view text, int64_t &number) {
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
	return error == std::errc() && end == text.data() + text.size() && number >= 0;
}

/* When a file of that name was made; false if the name is another. */
bool begun_of(const std::string &name, int64_t &begun) {
	std::string_view time = between(name, kPrefix);
	return !time.empty() && to_number(time, begun);
}

std::string file_name(const std::string &path) {
	return fs::path(path).filename().string();
}

/* requests-17.sqlite is damaged-17.sqlite there. */
std::string aside_name(const std::string &path) {
	std::string name = file_name(path);
	if (name.compare(0, kPrefix.size(), kPrefix) == 0) {
		name.erase(0, kPrefix.size());
	}
	return std::string(kAsidePrefix) + name;
}

/* With what is not in the main file yet. */
void rename_database(const std::string &from, const std::string &to) {
	std::error_code error;
	remove_database(to);
	fs::rename(from, to, error);
	fs::rename(from + "-wal", to + "-wal", error);
	remove_database(from);
}

std::string count_of_requests(int64_t count) {
	return std::to_string(count) + (count == 1 ? " request" : " requests");
}

std::string name_of(int64_t begun) {
	char name[64];
	snprintf(name, sizeof(name), "requests-%013lld.sqlite", static_cast<long long>(begun));
	return name;
}

} // namespace

RequestDirectory::RequestDirectory(std::string directory, DatabasePool &pool, bool is_read_only)
	: directory_(std::move(directory)), pool_(pool), is_read_only_(is_read_only) {
	find_files();
	for (const File &file : files()) {
		try {
			pool_.lease(file.path)->execAndGet("SELECT count(*) FROM about");
		} catch (const SQLite::Exception &error) {
			if (is_damage(error)) {
				put_aside(file, error.what());
			} else {
				std::lock_guard lock(mutex_);
				note({file, file_name(file.path) + " cannot be read: " + error.what(), true});
			}
		}
	}
}

void RequestDirectory::find_files() {
	std::lock_guard lock(mutex_);
	std::error_code error;
	for (const fs::directory_entry &entry : fs::directory_iterator(directory_, error)) {
		File file;
		file.path = entry.path().string();
		std::string name = entry.path().filename().string();
		if (begun_of(name, file.begun)) {
			files_.push_back(std::move(file));
		} else if (!between(name, kAsidePrefix).empty()) {
			find_aside(name);
		}
	}
	std::sort(files_.begin(), files_.end(),
			  [](const File &one, const File &other) { return one.begun < other.begun; });
	std::sort(asides_.begin(), asides_.end(), [](const Aside &one, const Aside &other) {
		return one.original.begun < other.original.begun;
	});
}

/* Of an earlier run. What was lost is in the name, once it is known. */
void RequestDirectory::find_aside(const std::string &name) {
	std::string_view rest = between(name, kAsidePrefix);
	size_t mark = rest.find(kLost);
	std::string_view original = rest.substr(0, mark);
	Aside aside{
		{directory_ + "/" + std::string(original) + std::string(kSuffix), 0, original == "pinned"},
		directory_ + "/" + name};
	bool has_requests = aside.original.is_pinned;
	if (to_number(original, aside.original.begun)) {
		aside.original.path = directory_ + "/" + name_of(aside.original.begun);
		has_requests = true;
	}
	std::string what = "what is lost of it is unknown";
	int64_t lost = 0;
	if (mark != std::string_view::npos && to_number(rest.substr(mark + kLost.size()), lost)) {
		what = lost == 0 ? "all requests of it could be saved"
						 : count_of_requests(lost) + " of it could not be read";
	} else if (mark == std::string_view::npos && has_requests) {
		unsaved_.push_back(aside);
	}
	note({aside.original, name + " was put aside, since it is damaged: " + what, has_requests});
	asides_.push_back(std::move(aside));
}

std::vector<RequestDirectory::File> RequestDirectory::files() const {
	std::vector<File> files;
	{
		std::lock_guard lock(mutex_);
		files.assign(files_.rbegin(), files_.rend());
	}
	std::error_code error;
	if (fs::exists(pinned_path(), error)) {
		files.push_back({pinned_path(), 0, true});
	}
	return files;
}

RequestDirectory::File RequestDirectory::name_new(int64_t now) const {
	std::lock_guard lock(mutex_);
	File file;
	file.begun = files_.empty() ? now : std::max(now, files_.back().begun + 1);
	file.path = directory_ + "/" + name_of(file.begun);
	return file;
}

void RequestDirectory::add(const File &file) {
	std::lock_guard lock(mutex_);
	auto place = std::upper_bound(
		files_.begin(), files_.end(), file,
		[](const File &one, const File &other) { return one.begun < other.begun; });
	files_.insert(place, file);
}

bool RequestDirectory::has(const File &file) const {
	std::lock_guard lock(mutex_);
	return std::any_of(files_.begin(), files_.end(),
					   [&file](const File &one) { return one.path == file.path; });
}

std::string RequestDirectory::pinned_path() const {
	return directory_ + "/pinned.sqlite";
}

bool RequestDirectory::newest_since(int64_t time, File &file) const {
	std::lock_guard lock(mutex_);
	if (files_.empty() || files_.back().begun < time) {
		return false;
	}
	file = files_.back();
	return true;
}

void RequestDirectory::retain(int64_t most_bytes, int64_t oldest) {
	retain_asides(most_bytes / kAsideShare, oldest);
	int64_t bytes = 0;
	{
		std::lock_guard lock(mutex_);
		for (const Aside &aside : asides_) {
			bytes += bytes_of_database(aside.path);
		}
	}
	std::vector<File> newest_first = files();
	for (size_t i = 0; i < newest_first.size(); i++) {
		const File &file = newest_first[i];
		bytes += file.is_pinned ? 0 : bytes_of_database(file.path);
		/* It ends where the next one begins. */
		bool is_old = i > 0 && newest_first[i - 1].begun < oldest;
		if (i > 0 && !file.is_pinned && (bytes > most_bytes || is_old)) {
			remove(file);
		}
	}
}

int64_t RequestDirectory::bytes() const {
	int64_t bytes = 0;
	for (const File &file : files()) {
		bytes += bytes_of_database(file.path);
	}
	return bytes;
}

/* From the list, and from the connections that are kept open. */
void RequestDirectory::strike(const File &file) {
	pool_.forget(file.path);
	files_.erase(std::remove_if(files_.begin(), files_.end(),
								[&file](const File &one) { return one.path == file.path; }),
				 files_.end());
}

void RequestDirectory::remove(const File &file) {
	std::lock_guard lock(mutex_);
	strike(file);
	remove_database(file.path);
}

void RequestDirectory::note(Damage damage) {
	auto same = std::find_if(damages_.begin(), damages_.end(), [&damage](const Damage &one) {
		return one.file.path == damage.file.path;
	});
	if (same != damages_.end()) {
		*same = std::move(damage);
	} else if (damages_.size() < kMostDamages) {
		damages_.push_back(std::move(damage));
	}
}

void RequestDirectory::put_aside(const File &file, const std::string &reason) {
	std::lock_guard lock(mutex_);
	bool has_requests = file.is_pinned || file.path == directory_ + "/" + name_of(file.begun);
	bool was_known = std::any_of(files_.begin(), files_.end(),
								 [&file](const File &one) { return one.path == file.path; });
	strike(file);
	std::string name = file_name(file.path);
	if (is_read_only_) {
		note({file, name + " is damaged, and requests may be missing: " + reason, has_requests});
		return;
	}
	/* Another thread has found the same. */
	if (bytes_of_database(file.path) == 0 || (has_requests && !file.is_pinned && !was_known)) {
		return;
	}
	Aside aside{file, directory_ + "/" + aside_name(file.path)};
	for (size_t i = asides_.size(); i-- > 0;) {
		if (asides_[i].path == aside.path) {
			remove_aside(i, "another took its place");
		}
	}
	rename_database(file.path, aside.path);
	std::string text =
		name + " is damaged and was put aside as " + file_name(aside.path) + ": " + reason;
	log_line(LogLevel::kError, directory_ + "/" + text);
	note({file, std::move(text), has_requests});
	if (has_requests) {
		unsaved_.push_back(aside);
	}
	asides_.push_back(std::move(aside));
	while (asides_.size() > kMostAsides) {
		remove_aside(0, "there are too many");
	}
}

std::optional<RequestDirectory::Aside> RequestDirectory::next_aside() {
	std::lock_guard lock(mutex_);
	if (unsaved_.empty()) {
		return std::nullopt;
	}
	Aside aside = std::move(unsaved_.front());
	unsaved_.pop_front();
	return aside;
}

/* Its name tells from then on what is lost. */
void RequestDirectory::settle(const Aside &aside, const std::string &fresh,
							  const Salvaged &salvaged) {
	std::error_code error;
	File file = aside.original;
	bool has_place = salvaged.saved > 0;
	if (file.is_pinned) {
		has_place = has_place && !fs::exists(pinned_path(), error);
	} else {
		while (fs::exists(file.path, error)) {
			file.path = directory_ + "/" + name_of(++file.begun);
		}
	}
	if (has_place) {
		rename_database(fresh, file.path);
	}
	if (has_place && !file.is_pinned) {
		add(file);
	}
	std::string lost = salvaged.is_readable && (has_place || salvaged.saved == 0)
						   ? std::to_string(salvaged.lost)
						   : "all";
	std::string text = file_name(aside.original.path) +
					   " was damaged: " + count_of_requests(has_place ? salvaged.saved : 0) +
					   " could be saved, lost " +
					   (lost == "all" ? "are all others"
						: lost == "0" ? "is none"
									  : "are " + count_of_requests(salvaged.lost));
	log_line(LogLevel::kError, directory_ + "/" + text);
	std::lock_guard lock(mutex_);
	auto place = std::find_if(asides_.begin(), asides_.end(),
							  [&aside](const Aside &one) { return one.path == aside.path; });
	if (place != asides_.end()) {
		std::string name = place->path.substr(0, place->path.size() - kSuffix.size());
		name += std::string(kLost) + lost + std::string(kSuffix);
		rename_database(place->path, name);
		place->path = std::move(name);
		text += "; what cannot be read is in " + file_name(place->path);
	}
	note({aside.original, std::move(text), true});
}

/* REQUIRES: the lock. */
void RequestDirectory::remove_aside(size_t place, const std::string &why) {
	auto aside = asides_.begin() + static_cast<std::ptrdiff_t>(place);
	unsaved_.erase(std::remove_if(unsaved_.begin(), unsaved_.end(),
								  [&aside](const Aside &one) { return one.path == aside->path; }),
				   unsaved_.end());
	remove_database(aside->path);
	std::string text =
		file_name(aside->path) + " was removed, and what was not saved of it is lost: " + why;
	log_line(LogLevel::kWarning, directory_ + "/" + text);
	note({aside->original, std::move(text), true});
	asides_.erase(aside);
}

void RequestDirectory::remove_asides() {
	std::lock_guard lock(mutex_);
	while (!asides_.empty()) {
		remove_aside(asides_.size() - 1,
					 "requests are forgotten, and it may have had some of them");
	}
}

void RequestDirectory::retain_asides(int64_t most_bytes, int64_t oldest) {
	std::lock_guard lock(mutex_);
	int64_t bytes = 0;
	for (size_t i = asides_.size(); i-- > 0;) {
		bytes += bytes_of_database(asides_[i].path);
		bool is_old = asides_[i].original.begun > 0 && asides_[i].original.begun < oldest;
		if (is_old || bytes > most_bytes) {
			bytes -= bytes_of_database(asides_[i].path);
			remove_aside(i, is_old ? "it is too old" : "it takes too much room");
		}
	}
}

std::vector<std::string> RequestDirectory::damages() const {
	std::lock_guard lock(mutex_);
	std::vector<std::string> texts;
	for (const Damage &damage : damages_) {
		texts.push_back(damage.text);
	}
	return texts;
}

std::vector<std::string> RequestDirectory::damages(const TimeRange &range) const {
	std::lock_guard lock(mutex_);
	std::vector<std::string> texts;
	for (const Damage &damage : damages_) {
		if (may_miss(damage, range)) {
			texts.push_back(damage.text);
		}
	}
	return texts;
}

/* A file ends where the next one begins. */
bool RequestDirectory::may_miss(const Damage &damage, const TimeRange &range) const {
	if (!damage.has_requests || damage.file.is_pinned) {
		return damage.has_requests;
	}
	auto next = std::upper_bound(
		files_.begin(), files_.end(), damage.file,
		[](const File &one, const File &other) { return one.begun < other.begun; });
	return range.to > damage.file.begun - kLongestRequest &&
		   (next == files_.end() || range.from < next->begun);
}

} // namespace kaq
