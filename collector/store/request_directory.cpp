#include "store/request_directory.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>

#include "store/schema.h"

namespace kaq {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "requests-";
constexpr std::string_view kSuffix = ".sqlite";
constexpr size_t kMostDamages = 20;

/* When a file of that name was made; false if the name is another. */
bool begun_of(const std::string &name, int64_t &begun) {
	if (name.size() <= kPrefix.size() + kSuffix.size() ||
		name.compare(0, kPrefix.size(), kPrefix) != 0 ||
		name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
		return false;
	}
	const char *from = name.data() + kPrefix.size();
	const char *to = name.data() + name.size() - kSuffix.size();
	auto [end, error] = std::from_chars(from, to, begun);
	return error == std::errc() && end == to && begun >= 0;
}

std::string name_of(int64_t begun) {
	char name[64];
	snprintf(name, sizeof(name), "requests-%013lld.sqlite", static_cast<long long>(begun));
	return name;
}

} // namespace

RequestDirectory::RequestDirectory(std::string directory, DatabasePool &pool)
	: directory_(std::move(directory)), pool_(pool) {
	std::error_code error;
	for (const fs::directory_entry &entry : fs::directory_iterator(directory_, error)) {
		File file;
		file.path = entry.path().string();
		if (begun_of(entry.path().filename().string(), file.begun)) {
			files_.push_back(std::move(file));
		}
	}
	std::sort(files_.begin(), files_.end(),
			  [](const File &one, const File &other) { return one.begun < other.begun; });
	for (const File &file : files()) {
		try {
			pool_.lease(file.path)->execAndGet("SELECT count(*) FROM about");
		} catch (const SQLite::Exception &error) {
			if (is_damage(error)) {
				put_aside(file, error.what());
			} else {
				damages_.push_back(fs::path(file.path).filename().string() +
								   " cannot be read: " + error.what());
			}
		}
	}
}

std::vector<RequestDirectory::File> RequestDirectory::files() const {
	std::vector<File> files;
	{
		std::lock_guard lock(mutex_);
		files.assign(files_.rbegin(), files_.rend());
	}
	if (fs::exists(pinned_path())) {
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
	files_.push_back(file);
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
	int64_t bytes = 0;
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

void RequestDirectory::put_aside(const File &file, const std::string &reason) {
	std::error_code error;
	std::lock_guard lock(mutex_);
	strike(file);
	/* Only the last one stays to be looked at: it takes room that nobody counts. */
	fs::rename(file.path, directory_ + "/damaged.sqlite", error);
	remove_database(file.path);
	if (damages_.size() < kMostDamages) {
		damages_.push_back(fs::path(file.path).filename().string() +
						   " cannot be read and was put aside: " + reason);
	}
}

std::vector<std::string> RequestDirectory::damages() const {
	std::lock_guard lock(mutex_);
	return damages_;
}

} // namespace kaq
