/*
 * The files of requests in a store's directory: which there are, from when, and how large. One of
 * them, the newest, is written to; one more holds what was pinned and is never thrown away. Any
 * thread.
 */
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "store/database_pool.h"
#include "store/filter.h"

namespace kaq {

class RequestDirectory {
public:
	struct File {
		std::string path;
		int64_t begun = 0; /* when it was made, in milliseconds; tells files apart */
		bool is_pinned = false;
	};

	/* Looks at what is there; files that cannot be opened are put aside as damaged. */
	RequestDirectory(std::string directory, DatabasePool &pool);

	/* Newest first, the one of pinned requests last if there is one. */
	std::vector<File> files() const;
	/* A name for a new file, later than all others whatever the clock says. */
	File name_new(int64_t now) const;
	/* It has its tables, and can be read from now on. */
	void add(const File &file);
	/* Whether it is one of those that count still. */
	bool has(const File &file) const;
	std::string pinned_path() const;
	/* The newest file, if it was begun after that time. */
	bool newest_since(int64_t time, File &file) const;

	/* Removes the oldest files until all together have at most that many bytes, and those that
	 * were begun, and followed by another, before that time. The newest always stays. */
	void retain(int64_t most_bytes, int64_t oldest);
	int64_t bytes() const;

	/* A file turned out to be damaged: renames it, so that it can be looked at, and remembers that
	 * in words. It counts no more. */
	void put_aside(const File &file, const std::string &reason);
	std::vector<std::string> damages() const;
	void remove(const File &file);

private:
	void strike(const File &file);

	const std::string directory_;
	DatabasePool &pool_;
	mutable std::mutex mutex_;
	std::vector<File> files_; /* oldest first */
	std::vector<std::string> damages_;
};

} // namespace kaq
