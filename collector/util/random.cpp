#include "util/random.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>
#include <vector>

namespace kaq {

std::string random_hex(size_t bytes) {
	std::vector<unsigned char> random(bytes);
	if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
		throw std::system_error(errno, std::generic_category(), "getrandom");
	}
	std::string text;
	for (unsigned char byte : random) {
		text += "0123456789abcdef"[byte >> 4];
		text += "0123456789abcdef"[byte & 15];
	}
	return text;
}

} // namespace kaq
