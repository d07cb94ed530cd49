/*
 * The files of requests in a store's directory: which there are, from when, and how large. One of
 * them, the newest, is written to; one more holds what was pinned and is never thrown away. Any
 * thread.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
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

	/* A damaged file under its new name. */
	struct Aside {
		File original;
		std::string path;
	};

	/* What could be read of one. */
	struct Salvaged {
		int64_t saved = 0;
		int64_t lost = 0;        /* known to have been there */
		bool is_readable = true; /* false: nobody knows how much else was there */
	};

	/* Looks at what is there; files that cannot be opened are put aside as damaged. */
	RequestDirectory(std::string directory, DatabasePool &pool, bool is_read_only = false);

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

	/* A file turned out to be damaged: renames it, so that what can be read of it may be saved, and
	 * remembers and logs that in words. It counts no more. Open for reading only it is left where
	 * it is. */
	void put_aside(const File &file, const std::string &reason);
	/* One that nobody has tried to save yet; each is told once. */
	std::optional<Aside> next_aside();
	/* `fresh` holds what could be read of it, and takes the file's place. The thread that writes.
	 */
	void settle(const Aside &aside, const std::string &fresh, const Salvaged &salvaged);
	/* Removes all that was put aside. */
	void remove_asides();
	/* What was lost, in words; of all times, or where requests of that range may be missing. */
	std::vector<std::string> damages() const;
	std::vector<std::string> damages(const TimeRange &range) const;
	void remove(const File &file);

private:
	struct Damage {
		File file;
		std::string text;
		bool has_requests = true;
	};

	void strike(const File &file);
	void find_files();
	void find_aside(const std::string &name);
	void note(Damage damage);
	void retain_asides(int64_t most_bytes, int64_t oldest);
	void remove_aside(size_t place, const std::string &why);
	bool may_miss(const Damage &damage, const TimeRange &range) const;

	const std::string directory_;
	DatabasePool &pool_;
	const bool is_read_only_;
	mutable std::mutex mutex_;
	std::vector<File> files_;   /* oldest first */
	std::vector<Aside> asides_; /* in the order in which they were put there */
	std::deque<Aside> unsaved_; /* of these */
	std::vector<Damage> damages_;
};

} // namespace kaq
