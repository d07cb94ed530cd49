/*
 * A lock on a file that one process at a time can hold. It ends with its process, however that
 * ends; the file stays, and holds the number of the process that had it last.
 */
#pragma once

#include <string>

#include "util/unique_fd.h"

namespace kaq {

class FileLock {
public:
	/* Makes the file, for the owner alone, if there is none. Throws std::system_error; its code is
	 * EWOULDBLOCK where another process holds the lock, and holder() tells which. */
	explicit FileLock(const std::string &path);

	/* The process that has that file's lock, or had it last; 0 if that is not known. */
	static int holder(const std::string &path);

private:
	UniqueFd fd_;
};

} // namespace kaq
