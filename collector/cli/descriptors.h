/* How many connections fit into the descriptors that the system allows. No state. */
#pragma once

#include <cstddef>

namespace kaq {

/* Connections at a time, of each port. */
struct ConnectionLimits {
	size_t handshakes = 0;
	size_t payloads = 0;
	size_t http = 0;
};

/* Takes as many descriptors as this process may have, and returns how many these are. */
size_t raise_descriptor_limit();

/* The usual limits, or less of each where there are too few descriptors: some are left for the
 * store and everything else in any case. */
ConnectionLimits connection_limits(size_t descriptors);

/* In the log, where they are less than usual. */
void say_limits(const ConnectionLimits &limits);

} // namespace kaq
