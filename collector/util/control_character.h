/* What a terminal or a file of lines must not be given. No state. */
#pragma once

namespace kaq {

/* Of ASCII; bytes of longer characters are none. */
inline bool is_control_character(char character) {
	auto byte = static_cast<unsigned char>(character);
	return byte < ' ' || byte == 0x7f;
}

} // namespace kaq
