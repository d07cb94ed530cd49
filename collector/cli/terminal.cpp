#include "cli/terminal.h"

#include <langinfo.h>
#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace kaq {
namespace {

constexpr int kLeastWidth = 40;
constexpr int kMostWidth = 1000;

const char *variable(const char *name) {
	const char *value = std::getenv(name);
	return value && value[0] ? value : nullptr;
}

int width_of_terminal(bool is_terminal) {
	const char *columns = variable("COLUMNS");
	int width = columns ? std::atoi(columns) : 0;
	winsize size{};
	if (width <= 0 && is_terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
		width = size.ws_col;
	}
	return width > 0 ? std::clamp(width, kLeastWidth, kMostWidth) : 0;
}

bool speaks_utf8() {
	locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
	if (!locale) {
		return false;
	}
	bool is_utf8 = std::string_view(nl_langinfo_l(CODESET, locale)) == "UTF-8";
	freelocale(locale);
	return is_utf8;
}

const char *code_of(Colour colour) {
	switch (colour) {
	case Colour::kNone:
		break;
	case Colour::kRed:
		return "\033[31m";
	case Colour::kGreen:
		return "\033[32m";
	case Colour::kYellow:
		return "\033[33m";
	case Colour::kBlue:
		return "\033[34m";
	case Colour::kMagenta:
		return "\033[35m";
	case Colour::kCyan:
		return "\033[36m";
	case Colour::kDim:
		return "\033[2m";
	case Colour::kBold:
		return "\033[1m";
	}
	return "";
}

} // namespace

std::string Terminal::paint(std::string_view text, Colour colour) const {
	if (!has_colours || colour == Colour::kNone || text.empty()) {
		return std::string(text);
	}
	return code_of(colour) + std::string(text) + "\033[0m";
}

Terminal standard_output() {
	Terminal terminal;
	const char *kind = variable("TERM");
	terminal.is_terminal = isatty(STDOUT_FILENO) != 0;
	terminal.has_colours =
		terminal.is_terminal && !variable("NO_COLOR") && kind && std::string_view(kind) != "dumb";
	terminal.width = width_of_terminal(terminal.is_terminal);
	terminal.has_unicode = speaks_utf8();
	return terminal;
}

} // namespace kaq
