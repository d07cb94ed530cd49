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
#include "cli/table.h"

namespace kaq {
namespace {

struct ChangeOptions {
	CommonOptions common;
	FilterOptions filter;
	std::string text; /* an id, a mark */
	std::string time;
	std::string id; /* of the mark that is removed */
	int64_t count = 1000;
	bool is_list = false;
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

int list_marks(const ChangeOptions &options) {
	Parameters parameters = parameters_of(options.filter);
	parameters["limit"] = std::to_string(options.count);
	Reply reply = Client(options.common).get("/api/v1/marks", parameters);
	if (!reply.is_good()) {
		return fail(reply, options.filter.query);
	}
	nlohmann::json found = reply.json();
	const nlohmann::json &marks = found.at("marks");
	if (options.common.is_json) {
		print_json(reply);
	} else if (marks.empty()) {
		fprintf(stderr, "kaq: no mark was found\n");
	} else {
		Table table(
			{{"id"}, {"time"}, {"application", Align::kLeft, 8}, {"text", Align::kLeft, 8}});
		for (const nlohmann::json &each : marks) {
			table.add({each.value("id", ""), full_time_text(each.value("time_ms", int64_t{0})),
					   each.value("application", ""), each.value("text", "")});
		}
		fputs(table.text(standard_output()).c_str(), stdout);
		if (found.value("more", false)) {
			fprintf(stderr, "kaq: the last %s: -n N shows more\n",
					count_of(options.count, "mark", "marks").c_str());
		}
	}
	return marks.empty() ? kFailed : kDone;
}

int unmark(const ChangeOptions &options) {
	Reply reply = Client(options.common).post("/api/v1/unmark", {{"id", options.id}});
	return tell(options, reply, [](const nlohmann::json &mark) {
		return "removed the mark of " + full_time_text(mark.value("time_ms", int64_t{0})) + ": " +
			   printable(mark.value("text", ""));
	});
}

int mark(const ChangeOptions &options) {
	if (options.is_list) {
		return list_marks(options);
	}
	if (!options.id.empty()) {
		return unmark(options);
	}
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
	CLI::Option &text = *verb.add_option("text", options->text, "what happened")->type_name("TEXT");
	CLI::Option &list =
		*verb.add_flag("--list", options->is_list, "show the marks, oldest first")->excludes(&text);
	CLI::Option &remove = *verb.add_option("--remove", options->id, "remove the mark with this id")
							   ->type_name("ID")
							   ->excludes(&text)
							   ->excludes(&list);
	verb.add_option("--at", options->time, "then, not now: 1h (ago), 2026-11-22T08:30")
		->type_name("TIME")
		->needs(&text);
	verb.add_option("-n,--count", options->count, "list the last N (1000)")
		->type_name("N")
		->needs(&list);
	verb.add_option("--since", options->filter.from, "list only what is of then or later")
		->type_name("TIME")
		->needs(&list);
	verb.add_option("--until", options->filter.to, "list only what is before that")
		->type_name("TIME")
		->needs(&list);
	verb.add_option("--app", options->filter.application, "only of, or to, this application")
		->type_name("NAME");
	add_common_options(verb, options->common);
	verb.callback([options, &status, &text, &list, &remove] {
		if (text.count() + list.count() + remove.count() == 0) {
			throw CLI::RequiredError("TEXT, --list or --remove ID");
		}
		status = mark(*options);
	});
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
