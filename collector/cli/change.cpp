/* Verbs that change what is kept or recorded: pin, unpin, forget, mark, resume; and open, which
 * lets somebody in. */
#include <CLI/CLI.hpp>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>

#include "cli/client.h"
#include "cli/command_line.h"
#include "cli/format.h"

namespace kaq {
namespace {

struct ChangeOptions {
	CommonOptions common;
	FilterOptions filter;
	std::string text; /* an id, a mark */
	std::string time;
	bool is_sure = false;
};

/* Prints the answer, or the sentence made of it. */
template <typename Sentence>
int tell(const ChangeOptions &options, const Reply &reply, Sentence sentence) {
	if (!reply.is_good()) {
		return fail(reply, options.filter.query);
	}
	if (options.common.is_json) {
		print_json(reply);
	} else {
		puts(sentence(reply.json()).c_str());
	}
	return kDone;
}

int pin(const ChangeOptions &options, const std::string &path, const std::string &what) {
	Reply reply = Client(options.common).post(path, {{"id", options.text}});
	return tell(options, reply,
				[&](const nlohmann::json &) { return printable(options.text) + what; });
}

bool is_wanted(const nlohmann::json &found) {
	auto count = static_cast<int64_t>(found.at("requests").size());
	fprintf(stderr, "This deletes %s%s for good. Type yes to go on: ",
			found.value("more", false) ? "at least " : "",
			count_of(count, "request", "requests").c_str());
	std::string answer;
	std::getline(std::cin, answer);
	return answer == "yes" || answer == "y";
}

int forget(const ChangeOptions &options) {
	Client client(options.common);
	if (!options.is_sure) {
		if (!isatty(STDIN_FILENO)) {
			fprintf(stderr, "kaq: nobody can be asked here: --yes deletes without asking\n");
			return kMisunderstood;
		}
		Parameters parameters = parameters_of(options.filter);
		parameters["limit"] = "1000";
		Reply reply = client.get("/api/v1/requests", parameters);
		if (!reply.is_good()) {
			return fail(reply, options.filter.query);
		}
		nlohmann::json found = reply.json();
		if (found.at("requests").empty()) {
			fprintf(stderr, "kaq: no request was found\n");
			return kFailed;
		}
		if (!is_wanted(found)) {
			fprintf(stderr, "kaq: nothing was deleted\n");
			return kFailed;
		}
	}
	Reply reply = client.post("/api/v1/forget", parameters_of(options.filter));
	int64_t forgotten = reply.json().value("forgotten", int64_t{0});
	int status = tell(options, reply, [forgotten](const nlohmann::json &) {
		return count_of(forgotten, "request", "requests") + " deleted";
	});
	return status == kDone && forgotten == 0 ? kFailed : status;
}

int mark(const ChangeOptions &options) {
	Reply reply = Client(options.common)
					  .post("/api/v1/mark", {{"text", options.text},
											 {"app", options.filter.application},
											 {"time", options.time}});
	return tell(options, reply, [](const nlohmann::json &mark) {
		return "marked " + full_time_text(mark.value("time_ms", int64_t{0})) + ": " +
			   printable(mark.value("text", ""));
	});
}

int resume(const ChangeOptions &options) {
	Reply reply =
		Client(options.common).post("/api/v1/resume", {{"app", options.filter.application}});
	nlohmann::json resumed = reply.json().value("resumed", nlohmann::json::array());
	int status = tell(options, reply, [&resumed](const nlohmann::json &) {
		auto count = static_cast<int64_t>(resumed.size());
		return count == 0
				   ? "nothing was to be resumed"
				   : count_of(count, "suspension", "suspensions") + " ended: it is monitored again";
	});
	return status == kDone && resumed.empty() ? kFailed : status;
}

int open(const ChangeOptions &options) {
	Reply reply = Client(options.common).post("/api/v1/login-link");
	return tell(options, reply, [](const nlohmann::json &link) { return link.value("url", ""); });
}

} // namespace

void add_pin(CLI::App &app, int &status) {
	auto options = std::make_shared<ChangeOptions>();
	CLI::App &verb = *app.add_subcommand("pin", "keep a request or a trace for good");
	verb.add_option("id", options->text, "of the request or the trace")->required();
	add_common_options(verb, options->common);
	verb.callback(
		[options, &status] { status = pin(*options, "/api/v1/pin", " stays until 'kaq unpin'"); });
}

void add_unpin(CLI::App &app, int &status) {
	auto options = std::make_shared<ChangeOptions>();
	CLI::App &verb = *app.add_subcommand("unpin", "let what was pinned go when its time comes");
	verb.add_option("id", options->text, "of the request or the trace")->required();
	add_common_options(verb, options->common);
	verb.callback([options, &status] {
		status = pin(*options, "/api/v1/unpin", " goes when its time comes");
	});
}

void add_forget(CLI::App &app, int &status) {
	auto options = std::make_shared<ChangeOptions>();
	CLI::App &verb = *app.add_subcommand("forget", "delete requests for good");
	verb.add_option("query", options->filter.query, "which requests, such as 'app:shop path:/me*'")
		->type_name("QUERY")
		->required();
	verb.add_flag("--yes", options->is_sure, "without asking");
	add_range_options(verb, options->filter);
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = forget(*options); });
}

void add_mark(CLI::App &app, int &status) {
	auto options = std::make_shared<ChangeOptions>();
	CLI::App &verb = *app.add_subcommand("mark", "mark a moment, such as a release");
	verb.add_option("text", options->text, "what happened")->required()->type_name("TEXT");
	verb.add_option("--app", options->filter.application, "only to this application")
		->type_name("NAME");
	verb.add_option("--at", options->time, "then, not now: 1h (ago), 2026-11-22T08:30")
		->type_name("TIME");
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = mark(*options); });
}

void add_resume(CLI::App &app, int &status) {
	auto options = std::make_shared<ChangeOptions>();
	CLI::App &verb =
		*app.add_subcommand("resume", "monitor again what was stopped for its crashes");
	verb.add_option("application", options->filter.application, "everything without")
		->type_name("NAME");
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = resume(*options); });
}

void add_open(CLI::App &app, int &status) {
	auto options = std::make_shared<ChangeOptions>();
	CLI::App &verb = *app.add_subcommand("open", "print a link that logs a browser in, once");
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = open(*options); });
}

} // namespace kaq
