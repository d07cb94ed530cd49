/* kaq show: one request, or a whole trace, as a waterfall with what is to be said about it. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <limits>
#include <memory>

#include "cli/client.h"
#include "cli/command_line.h"
#include "cli/format.h"
#include "cli/request_text.h"
#include "cli/waterfall.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualRows = 40;
constexpr size_t kMostRows = 200;
constexpr size_t kMostFindings = 5;
constexpr size_t kMostRequests = 20; /* of a trace */

struct ShowOptions {
	CommonOptions common;
	std::string id;
	bool is_whole = false;
	bool is_trace = false;
};

int64_t number(const json &object, const char *name) {
	return object.value(name, int64_t{0});
}

std::string text(const json &object, const char *name) {
	return printable(object.value(name, ""));
}

/* Parts with room between them, on as many lines as they need. */
class Parts {
public:
	explicit Parts(const Terminal &terminal)
		: width_(static_cast<size_t>(terminal.width_or(std::numeric_limits<int>::max()))) {
	}

	void add(const std::string &plain, const std::string &painted) {
		if (plain.empty()) {
			return;
		}
		size_t width = width_of(plain);
		if (used_ > 0 && used_ + 3 + width > width_) {
			text_ += "\n";
			used_ = 0;
		}
		text_ += (used_ > 0 ? "   " : "") + painted;
		used_ += width + (used_ > 0 ? 3 : 0);
	}
	void add(const std::string &plain) {
		add(plain, plain);
	}
	void print() const {
		if (!text_.empty()) {
			printf("%s\n", text_.c_str());
		}
	}

private:
	const size_t width_;
	size_t used_ = 0;
	std::string text_;
};

/* "61 queries 480 ms"; nothing where there are none. */
std::string counted(int64_t count, const char *one, const char *many, int64_t milliseconds = 0) {
	if (count == 0) {
		return "";
	}
	return count_of(count, one, many) + (milliseconds > 0 ? " " + duration_text(milliseconds) : "");
}

void print_title(const json &request, const Terminal &terminal) {
	bool is_web = request.value("web", false);
	std::string what =
		is_web ? text(request, "method") + " " + text(request, "path") : text(request, "path");
	Parts parts(terminal);
	parts.add(what, terminal.paint(what, Colour::kBold));
	parts.add(text(request, "application"));
	if (is_web) {
		std::string status = "status " + std::to_string(number(request, "status"));
		parts.add(status, terminal.paint(status, colour_of_request(request)));
	}
	std::string duration = duration_text(number(request, "duration_ms"));
	parts.add(duration, terminal.paint(duration, Colour::kBold));
	if (request.value("failed", false)) {
		parts.add("failed", terminal.paint("failed", Colour::kRed));
	}
	parts.print();
}

void print_facts(const json &request, const Terminal &terminal) {
	Parts parts(terminal);
	parts.add("request " + text(request, "id"));
	parts.add("trace " + text(request, "trace_id"));
	parts.add(full_time_text(number(request, "start_ms")));
	parts.add(text(request, "host"));
	if (request.value("pinned", false)) {
		parts.add("pinned");
	}
	parts.print();
	Parts figures(terminal);
	figures.add("CPU " + duration_text(number(request, "cpu_ms")));
	figures.add("memory " + bytes_text(number(request, "memory_bytes")));
	figures.add(
		counted(number(request, "queries"), "query", "queries", number(request, "query_ms")));
	figures.add(counted(number(request, "calls"), "external call", "external calls",
						number(request, "external_ms")));
	figures.add(counted(number(request, "failures"), "error", "errors"));
	figures.add(counted(number(request, "spans"), "span", "spans"));
	figures.print();
}

void print_layers(const json &answer, const Terminal &terminal) {
	Parts parts(terminal);
	for (const char *layer : {"code", "database", "cache", "http", "other"}) {
		int64_t time = number(answer.at("layers"), layer);
		if (time > 0) {
			std::string glyph = terminal.has_unicode ? "\u2588 " : "# ";
			std::string share = std::string(layer) + " " + duration_text(time);
			parts.add(glyph + share, terminal.paint(glyph, colour_of_layer(layer)) + share);
		}
	}
	parts.print();
}

/* The verdict first, then what else was found. */
void print_findings(const json &answer, const Terminal &terminal) {
	const json &request = answer.at("request");
	std::string verdict = text(request, "verdict");
	auto width = static_cast<size_t>(terminal.width_or(std::numeric_limits<int>::max()));
	if (!verdict.empty()) {
		printf("\n%s\n", terminal.paint(wrapped(verdict, width), Colour::kYellow).c_str());
	}
	size_t shown = 0;
	for (const json &finding : answer.value("findings", json::array())) {
		std::string sentence = text(finding, "sentence");
		if (sentence != verdict && shown++ < kMostFindings) {
			printf("%s%s\n", verdict.empty() && shown == 1 ? "\n" : "",
				   wrapped("also: " + sentence, width).c_str());
		}
	}
}

void print_waterfall(const json &answer, const ShowOptions &options, const Terminal &terminal) {
	std::vector<CallNode> trees = call_trees(answer);
	if (!options.is_whole) {
		prune(trees, kUsualRows);
	}
	size_t rows = options.is_whole ? std::numeric_limits<size_t>::max() : kMostRows;
	printf("\n%s", waterfall(trees, terminal, rows).c_str());
	std::string legend = terminal.has_unicode ? "\u2588 itself   \u2591 calls within or beside it"
											  : "# itself   - calls within or beside it";
	printf("%s\n", terminal.paint(legend, Colour::kDim).c_str());
}

int show_request(const ShowOptions &options, const json &answer) {
	Terminal terminal = standard_output();
	const json &request = answer.at("request");
	print_title(request, terminal);
	print_facts(request, terminal);
	bool is_kept = answer.contains("spans");
	if (is_kept) {
		print_layers(answer, terminal);
	}
	print_findings(answer, terminal);
	if (is_kept) {
		print_waterfall(answer, options, terminal);
	} else {
		printf("\nIts document was not kept, so that its calls are not known: more came than the "
			   "store has room for.\n");
	}
	int64_t others = number(answer, "requests_of_trace") - 1;
	if (others > 0) {
		printf("%s of this trace: kaq show %s\n",
			   count_of(others, "more request", "more requests").c_str(),
			   text(request, "trace_id").c_str());
	}
	return kDone;
}

void print_request_of_trace(const json &each, const Terminal &terminal) {
	const json &request = each.at("request");
	Parts parts(terminal);
	parts.add(text(request, "id"), terminal.paint(text(request, "id"), Colour::kCyan));
	parts.add(text(request, "application"));
	parts.add((request.value("web", false) ? text(request, "method") + " " : "") +
			  text(request, "path"));
	std::string status = std::to_string(number(request, "status"));
	parts.add(status, terminal.paint(status, colour_of_request(request)));
	parts.add(duration_text(number(request, "duration_ms")));
	if (!each.contains("spans")) {
		parts.add(each.value("left_out", false)
					  ? "without its calls, which are too many here: kaq show " +
							text(request, "id")
					  : "without its calls: its document was not kept");
	}
	int64_t shift = number(each, "shift_ms");
	if (shift != 0) {
		parts.add("its clock moved by " + count_text(shift) + " ms");
	}
	parts.add(each.contains("forked_from") ? "forked" : "");
	std::string verdict = text(request, "verdict");
	parts.add(verdict, terminal.paint(verdict, Colour::kYellow));
	parts.print();
}

/* The first ones, and how many more there are; whether the calls of any are known. */
bool print_requests(const json &requests, bool is_whole, const Terminal &terminal) {
	bool has_calls = false;
	size_t shown = 0;
	int64_t failed = 0; /* of the others */
	for (const json &each : requests) {
		has_calls = has_calls || each.contains("spans");
		if (is_whole || shown < kMostRequests) {
			print_request_of_trace(each, terminal);
			shown++;
		} else {
			failed += each.at("request").value("failed", false) ? 1 : 0;
		}
	}
	if (shown < requests.size()) {
		auto more = static_cast<int64_t>(requests.size() - shown);
		std::string text = "and " + count_of(more, "more request", "more requests");
		text += failed > 0 ? ", " + count_text(failed) + " of them failed" : "";
		printf("%s\n", terminal.paint(text + ": --all shows them", Colour::kDim).c_str());
	}
	return has_calls;
}

int show_trace(const ShowOptions &options, const json &answer) {
	Terminal terminal = standard_output();
	const json &requests = answer.at("requests");
	std::string title = "trace " + text(answer, "trace_id");
	printf("%s   %s   %s   %s\n\n", terminal.paint(title, Colour::kBold).c_str(),
		   count_of(static_cast<int64_t>(requests.size()), "request", "requests").c_str(),
		   duration_text(number(answer, "duration_ms")).c_str(),
		   full_time_text(number(answer, "start_ms")).c_str());
	bool has_calls = print_requests(requests, options.is_whole, terminal);
	if (has_calls) {
		print_waterfall(answer, options, terminal);
	}
	return kDone;
}

/* The beginning of a request's id wins over that of a trace's. */
int show(const ShowOptions &options) {
	Client client(options.common);
	Reply reply = options.is_trace ? Reply() : client.get("/api/v1/request", {{"id", options.id}});
	bool is_request = reply.is_good();
	if (!is_request && (options.is_trace || reply.status == 404)) {
		reply = client.get("/api/v1/trace", {{"id", options.id}});
	}
	if (!reply.is_good()) {
		return fail(reply);
	}
	if (options.common.is_json) {
		print_json(reply);
		return kDone;
	}
	return is_request ? show_request(options, reply.json()) : show_trace(options, reply.json());
}

} // namespace

void add_show(CLI::App &app, int &status) {
	auto options = std::make_shared<ShowOptions>();
	CLI::App &verb = *app.add_subcommand("show", "show a request or a trace, and what slowed it");
	verb.add_option("id", options->id, "of the request or the trace; 4 characters may do")
		->required()
		->type_name("ID");
	verb.add_flag("--trace", options->is_trace, "the whole trace of that request");
	verb.add_flag("--all", options->is_whole,
				  "every request of a trace and every call, however small");
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = show(*options); });
}

} // namespace kaq
