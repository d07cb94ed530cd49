#include "cli/summary_text.h"

#include <ctime>

#include <fmt/format.h>

#include "cli/format.h"

namespace kaq {
namespace {

std::string clock_of(int64_t milliseconds) {
	time_t seconds = milliseconds / 1000;
	tm local{};
	localtime_r(&seconds, &local);
	return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
					   milliseconds % 1000);
}

const char *colour_of(const Summary &summary) {
	if (summary.is_failed) {
		return "\033[31m";
	}
	return summary.status >= 400 || summary.failures > 0 ? "\033[33m" : "";
}

} // namespace

std::string line_titles() {
	return fmt::format("{:12} {:>6} {:>9} {:>8} {:>7} {:>5} {:>4}  {:16} {}", "time", "status",
					   "duration", "cpu", "queries", "calls", "fail", "request",
					   "application, transaction");
}

std::string to_line(const Summary &summary, bool has_colours) {
	std::string status = summary.is_web ? std::to_string(summary.status) : "-";
	std::string line = fmt::format(
		"{:12} {:>6} {:>6} ms {:>5} ms {:>7} {:>5} {:>4}  {:16} {}  {} {}", clock_of(summary.start),
		status, summary.duration, summary.cpu, summary.queries, summary.calls, summary.failures,
		printable(summary.id), printable(summary.application), printable(summary.method),
		printable(summary.path));
	const char *colour = has_colours ? colour_of(summary) : "";
	return colour[0] ? colour + line + "\033[0m" : line;
}

} // namespace kaq
