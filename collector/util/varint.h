/* Whole numbers in as few bytes as they need, 7 bits in each. Any thread. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kaq {

inline void append_varint(std::string &bytes, uint64_t value) {
	while (value >= 0x80) {
		bytes += static_cast<char>(value | 0x80);
		value >>= 7;
	}
	bytes += static_cast<char>(value);
}

/* Takes a number off the front; false if there is no whole one. */
inline bool take_varint(std::string_view &bytes, uint64_t &value) {
	value = 0;
	for (unsigned shift = 0; shift < 64 && !bytes.empty(); shift += 7) {
		auto byte = static_cast<unsigned char>(bytes.front());
		bytes.remove_prefix(1);
		value |= static_cast<uint64_t>(byte & 0x7f) << shift;
		if (byte < 0x80) {
			return true;
		}
	}
	return false;
}

} // namespace kaq
