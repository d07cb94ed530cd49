#include "cli/request_text.h"

#include <nlohmann/json.hpp>

#include "cli/client.h"
#include "cli/format.h"
#include "util/system_time.h"

namespace kaq {
namespace {

int64_t number(const nlohmann::json &request, const char *name) {
	return request.value(name, int64_t{0});
}

/* Times of the layers where there is something to tell. */
std::string duration_or_nothing(int64_t milliseconds) {
	return milliseconds > 0 ? duration_text(milliseconds) : "";
}

std::string count_or_nothing(int64_t count) {
	return count > 0 ? count_text(count) : "";
}

} // namespace

Colour colour_of_request(const nlohmann::json &request) {
	if (request.value("failed", false)) {
		return Colour::kRed;
	}
	bool is_odd = number(request, "status") >= 400 || number(request, "failures") > 0;
	return is_odd ? Colour::kYellow : Colour::kNone;
}

Table request_table() {
	return Table({{"request"},
				  {"time"},
				  {"status", Align::kRight},
				  {"duration", Align::kRight},
				  {"database", Align::kRight, 0, true},
				  {"external", Align::kRight, 0, true},
				  {"queries", Align::kRight, 0, true},
				  {"app", Align::kLeft, 5},
				  {"transaction", Align::kLeft, 12},
				  {"verdict", Align::kLeft, 24, true}});
}

void add_request(Table &table, const nlohmann::json &request) {
	bool is_web = request.value("web", false);
	std::string name = request.value("method", "") + " " + request.value("name", "");
	table.add(
		{{request.value("id", ""), Colour::kCyan},
		 {time_text(number(request, "start_ms"), system_time()), Colour::kDim},
		 {is_web ? std::to_string(number(request, "status")) : "-", colour_of_request(request)},
		 duration_text(number(request, "duration_ms")),
		 duration_or_nothing(number(request, "query_ms")),
		 duration_or_nothing(number(request, "external_ms")),
		 count_or_nothing(number(request, "queries")),
		 request.value("application", ""),
		 is_web ? name : request.value("name", ""),
		 {request.value("verdict", ""), Colour::kYellow}});
}

} // namespace kaq
