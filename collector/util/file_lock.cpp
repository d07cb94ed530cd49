#include "util/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace kaq {
namespace {

[[noreturn]] void fail(const std::string &what) {
	throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

FileLock::FileLock(const std::string &path)
	: fd_(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
	if (!fd_) {
		fail("cannot open " + path);
	}
	if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
		fail("cannot lock " + path);
	}
	std::string line = std::to_string(getpid()) + "\n";
	if (ftruncate(fd_.get(), 0) != 0 ||
		pwrite(fd_.get(), line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
		/* A full disk: the lock holds all the same. */
		return;
	}
}

int FileLock::holder(const std::string &path) {
	int process = 0;
	std::ifstream(path) >> process;
	return process;
}

} // namespace kaq
