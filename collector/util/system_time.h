/* The system's clock. Any thread. */
#pragma once

#include <chrono>
#include <cstdint>

namespace kaq {

/* Milliseconds since the Unix epoch. */
inline int64_t system_time() {
	return std::chrono::duration_cast<std::chrono::milliseconds>(
			   std::chrono::system_clock::now().time_since_epoch())
		.count();
}

} // namespace kaq
