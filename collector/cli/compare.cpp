/* kaq compare: what differs between two requests. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/client.h"
#include "cli/command_line.h"
#include "cli/format.h"
#include "cli/table.h"
#include "cli/waterfall.h"

namespace kaq {
namespace {

using nlohmann::json;

struct CompareOptions {
	CommonOptions common;
	std::string a;
	std::string b;
	bool is_typical = false;
	int64_t count = 20;
};

int64_t number(const json &object, const char *name) {
	return object.value(name, int64_t{0});
}

std::string signed_duration(int64_t milliseconds) {
	return (milliseconds < 0 ? "-" : "+") + duration_text(std::abs(milliseconds));
}

std::string name_of(const json &request) {
	std::string method = request.value("method", "");
	return printable(request.value("id", "") + "  " + (method.empty() ? "" : method + " ") +
					 request.value("path", ""));
}

/* Longer and oftener is red. */
Colour colour_of(int64_t growth) {
	if (growth == 0) {
		return Colour::kNone;
	}
	return growth > 0 ? Colour::kRed : Colour::kGreen;
}

std::string explained(const json &difference) {
	std::string change = difference.value("change", "");
	int64_t before = number(difference, "count_before");
	int64_t after = number(difference, "count_after");
	if (change == "added") {
		return "only after, " + count_of(after, "call", "calls");
	}
	if (change == "removed") {
		return "only before, " + count_of(before, "call", "calls");
	}
	if (change == "count") {
		return count_text(before) + " to " + count_of(after, "call", "calls");
	}
	return number(difference, "growth_ms") > 0 ? "each takes longer" : "each is faster";
}

void print_comparison(const json &answer, const Terminal &terminal) {
	const json &a = answer.at("a");
	bool is_typical = answer.contains("typical");
	const json &b = answer.at(is_typical ? "typical" : "b");
	int64_t before = number(is_typical ? b : a, "duration_ms");
	int64_t after = number(is_typical ? a : b, "duration_ms");
	std::string other = is_typical
							? "typical of " + count_of(number(b, "requests"), "request", "requests")
							: name_of(b);
	printf("before  %s  %s\n", right_aligned(duration_text(before), 10).c_str(),
		   (is_typical ? other : name_of(a)).c_str());
	printf("after   %s  %s\n", right_aligned(duration_text(after), 10).c_str(),
		   (is_typical ? name_of(a) : other).c_str());
	printf("        %s\n\n",
		   terminal
			   .paint(right_aligned(signed_duration(after - before), 10), colour_of(after - before))
			   .c_str());
	Table table({{"self time", Align::kRight},
				 {"before", Align::kRight},
				 {"after", Align::kRight},
				 {"why", Align::kLeft, 12},
				 {"call", Align::kLeft, 16},
				 {"called by", Align::kLeft, 10}});
	for (const json &each : answer.at("differences")) {
		int64_t growth = number(each, "growth_ms");
		std::string detail = each.value("detail", "");
		std::string path = each.value("path", "");
		size_t last = path.rfind(" > ");
		table.add({{signed_duration(growth), colour_of(growth)},
				   duration_text(number(each, "self_before_ms")),
				   duration_text(number(each, "self_after_ms")),
				   explained(each),
				   detail.empty() ? each.value("name", "") : detail,
				   {last == std::string::npos ? path : path.substr(last + 3), Colour::kDim}});
	}
	if (table.is_empty()) {
		puts("nothing differs");
	} else {
		fputs(table.text(terminal).c_str(), stdout);
	}
}

int compare(const CompareOptions &options) {
	if (options.b.empty() == !options.is_typical) {
		fprintf(stderr, "kaq: name a second request, or --typical\n");
		return kMisunderstood;
	}
	Reply reply = Client(options.common)
					  .get("/api/v1/compare", {{"a", options.a},
											   {"b", options.b},
											   {"typical", options.is_typical ? "1" : ""},
											   {"limit", std::to_string(options.count)}});
	if (!reply.is_good()) {
		return fail(reply);
	}
	if (options.common.is_json) {
		print_json(reply);
	} else {
		print_comparison(reply.json(), standard_output());
	}
	return kDone;
}

} // namespace

void add_compare(CLI::App &app, int &status) {
	auto options = std::make_shared<CompareOptions>();
	CLI::App &verb = *app.add_subcommand("compare", "say what differs between two requests");
	verb.add_option("before", options->a, "id of a request")->required()->type_name("ID");
	verb.add_option("after", options->b, "id of another one")->type_name("ID");
	verb.add_flag("--typical", options->is_typical,
				  "with what is typical of the requests of its transaction");
	verb.add_option("-n,--count", options->count, "at most N differences (20)")->type_name("N");
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = compare(*options); });
}

} // namespace kaq
