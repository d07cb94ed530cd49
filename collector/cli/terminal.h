/* What the standard output can show. */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

enum class Colour { kNone, kRed, kGreen, kYellow, kBlue, kMagenta, kCyan, kDim, kBold };

struct Terminal {
	int width = 0; /* columns; 0: as many as are wanted */
	bool is_terminal = false;
	bool has_colours = false;
	bool has_unicode = false; /* bars and lines may be drawn with more than ASCII */

	/* The text in this colour, where there are any. */
	std::string paint(std::string_view text, Colour colour) const;
	/* For what is drawn to a width: `usual` where as many are had as are wanted. */
	int width_or(int usual) const {
		return width > 0 ? width : usual;
	}
};

/* Of the standard output. $COLUMNS wins over what the terminal says; no colours where $NO_COLOR is
 * set, where $TERM is dumb, or where it is no terminal. */
Terminal standard_output();

} // namespace kaq
