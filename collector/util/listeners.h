/* Who listens on a TCP port of this host, as far as the system lets us see. No state. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kaq {

struct Listener {
	std::string address; /* "127.0.0.1", "::" */
	int64_t process = 0; /* 0: it cannot be seen */
	std::string program; /* the process's name; empty if it cannot be seen */
};

/* `processes` is where the system tells of them. */
std::vector<Listener> listeners_on(uint16_t port, const std::string &processes = "/proc");

} // namespace kaq
