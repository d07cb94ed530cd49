#include "util/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "util/unique_fd.h"

namespace kaq {

std::optional<std::string> beginning_of(const std::string &path, size_t most) {
	UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
	struct stat file;
	if (!fd || fstat(fd.get(), &file) != 0 || !S_ISREG(file.st_mode)) {
		return std::nullopt;
	}
	std::string text(most, '\0');
	size_t size = 0;
	ssize_t count = 1;
	while (count > 0 && size < most) {
		count = read(fd.get(), &text[size], most - size);
		size += static_cast<size_t>(std::max<ssize_t>(count, 0));
	}
	text.resize(size);
	return text;
}

} // namespace kaq
