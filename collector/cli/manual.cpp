#include "cli/manual.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli/configuration.h"
#include "cli/places.h"

namespace kaq {
namespace {

std::string upper(std::string text) {
	for (char &each : text) {
		each = static_cast<char>(std::toupper(static_cast<unsigned char>(each)));
	}
	return text;
}

std::vector<const CLI::App *> verbs_of(const CLI::App &app) {
	return app.get_subcommands([](const CLI::App *verb) { return !verb->get_group().empty(); });
}

std::vector<const CLI::Option *> shown(const CLI::App &app, bool is_positional) {
	return app.get_options([is_positional](const CLI::Option *option) {
		return !option->get_group().empty() && option->get_positional() == is_positional;
	});
}

bool takes_value(const CLI::Option &option) {
	return option.get_items_expected_max() > 0;
}

/* "DIR" of "DIR:what a check says". */
std::string value_name(const CLI::Option &option) {
	std::string name = option.get_type_name();
	auto end = std::find_if(name.begin(), name.end(),
							[](unsigned char each) { return std::isupper(each) == 0; });
	return std::string(name.begin(), end);
}

/* The short ones first, with their signs. */
std::vector<std::string> names_of(const CLI::Option &option) {
	std::vector<std::string> names;
	for (const std::string &each : option.get_snames()) {
		names.push_back("-" + each);
	}
	for (const std::string &each : option.get_lnames()) {
		names.push_back("--" + each);
	}
	return names;
}

/* As running text of a page, in which nothing is a command or a ligature. */
std::string roff(const std::string &text) {
	static const std::map<char, const char *> kEscapes = {
		{'\\', "\\e"},  {'-', "\\-"},   {'\'', "\\(aq"}, {'"', "\\(dq"},
		{'`', "\\(ga"}, {'^', "\\(ha"}, {'~', "\\(ti"},
	};
	std::string escaped = text.compare(0, 1, ".") == 0 ? "\\&" : "";
	for (char each : text) {
		auto found = kEscapes.find(each);
		escaped += found == kEscapes.end() ? std::string(1, each) : found->second;
	}
	return escaped;
}

std::string bold(const std::string &text) {
	return "\\fB" + roff(text) + "\\fR";
}

std::string italic(const std::string &text) {
	return "\\fI" + roff(text) + "\\fR";
}

std::string argument(const CLI::Option &option) {
	std::string name = italic(upper(option.get_name(true)));
	return option.get_required() ? name : "[" + name + "]";
}

std::string synopsis(const std::string &command, const CLI::App &app) {
	std::string line = bold(command) + " [" + italic("OPTION") + "]...";
	for (const CLI::Option *each : shown(app, true)) {
		line += " " + argument(*each);
	}
	if (!verbs_of(app).empty()) {
		line = bold(command) + " " + italic("VERB") + " [" + italic("OPTION") + "]...";
	}
	return line + "\n";
}

std::string row(const std::string &title, const std::string &text) {
	return ".TP\n" + title + "\n" + roff(text) + "\n";
}

std::string rows_of_options(const CLI::App &app) {
	std::string rows;
	for (const CLI::Option *each : shown(app, true)) {
		rows += row(italic(upper(each->get_name(true))), each->get_description());
	}
	for (const CLI::Option *each : shown(app, false)) {
		std::string title;
		for (const std::string &name : names_of(*each)) {
			title += (title.empty() ? "" : ", ") + bold(name);
		}
		title += takes_value(*each) ? " " + italic(value_name(*each)) : "";
		rows += row(title, each->get_description());
	}
	return rows;
}

/* "list requests" of "Lists requests."; what begins with a name keeps its capitals. */
std::string title_text(std::string text) {
	if (!text.empty() && text.back() == '.') {
		text.pop_back();
	}
	if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])) != 0) {
		text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
	}
	return text;
}

std::string page_head(const std::string &name, const std::string &description,
					  const ManualEdition &edition) {
	return fmt::format(".TH \"{}\" 1 \"{}\" \"kaq {}\" \"User Commands\"\n.nh\n.ad l\n"
					   ".SH NAME\n{} \\- {}\n",
					   roff(upper(name)), edition.date, roff(edition.version), roff(name),
					   roff(title_text(description)));
}

std::string page_end(const std::string &see_also) {
	return ".SH FILES\n" + row(italic(kConfigurationFile), "settings of the collector") +
		   row(italic(kServiceStore), "what the collector of this host keeps") + ".SH SEE ALSO\n" +
		   see_also;
}

std::string page_of_program(const CLI::App &app, const ManualEdition &edition) {
	const std::string &name = app.get_name();
	std::string page = page_head(name, app.get_description(), edition) + ".SH SYNOPSIS\n" +
					   synopsis(name, app) + ".SH DESCRIPTION\n" + roff(app.get_description()) +
					   "\n.PP\n" + roff(app.get_footer()) + "\n.SH VERBS\n";
	std::string see_also;
	for (const CLI::App *each : verbs_of(app)) {
		page += row(bold(each->get_name()), each->get_description());
		see_also += fmt::format("{}.BR {}\\-{} (1)", see_also.empty() ? "" : ",\n", roff(name),
								roff(each->get_name()));
	}
	return page + ".SH OPTIONS\n" + rows_of_options(app) + page_end(see_also + "\n");
}

std::string page_of_verb(const CLI::App &program, const CLI::App &verb,
						 const ManualEdition &edition) {
	std::string name = program.get_name() + "-" + verb.get_name();
	std::string command = program.get_name() + " " + verb.get_name();
	std::string page = page_head(name, verb.get_description(), edition) + ".SH SYNOPSIS\n" +
					   synopsis(command, verb) + ".SH OPTIONS\n" + rows_of_options(verb);
	for (const CLI::App *each : verbs_of(verb)) {
		page += ".SH \"" + roff(upper(command + " " + each->get_name())) + "\"\n" +
				roff(each->get_description()) + "\n.PP\n" +
				synopsis(command + " " + each->get_name(), *each) + rows_of_options(*each);
	}
	return page + page_end(fmt::format(".BR {} (1)\n", roff(program.get_name())));
}

/* "--config" of those options that want a value of that name; where it is empty, any other. */
std::string names_that_want(const CLI::App &app, const std::vector<std::string> &values,
							bool are_wanted) {
	std::string names;
	for (const CLI::Option *each : shown(app, false)) {
		bool is_named = std::count(values.begin(), values.end(), value_name(*each)) > 0;
		if (takes_value(*each) && is_named == are_wanted) {
			for (const std::string &name : names_of(*each)) {
				names += (names.empty() ? "" : " | ") + name;
			}
		}
	}
	return names;
}

std::string completion_case(const std::string &names, const std::string &action) {
	return names.empty()
			   ? ""
			   : fmt::format("\t\t{})\n\t\t\t{}\n\t\t\treturn\n\t\t\t;;\n", names, action);
}

/* What can follow a command, and the same of its verbs. */
void add_completions(const CLI::App &app, const std::string &command, std::string &cases,
					 std::string &commands) {
	std::string words;
	for (const CLI::App *each : verbs_of(app)) {
		words += each->get_name() + " ";
		std::string inner = command + " " + each->get_name();
		commands += (commands.empty() ? "'" : " | '") + inner + "'";
	}
	for (const CLI::Option *each : shown(app, false)) {
		for (const std::string &name : names_of(*each)) {
			words += name + " ";
		}
	}
	words.pop_back();
	std::string values = completion_case(names_that_want(app, {"DIR"}, true), "_kaq_offer -d") +
						 completion_case(names_that_want(app, {"FILE"}, true), "_kaq_offer -f") +
						 completion_case(names_that_want(app, {"DIR", "FILE"}, false), ":");
	cases += fmt::format("\t'{}')\n", command);
	if (!values.empty()) {
		cases += "\t\tcase $previous in\n" + values + "\t\tesac\n";
	}
	cases += fmt::format("\t\t_kaq_offer -W '{}'\n\t\t;;\n", words);
	for (const CLI::App *each : verbs_of(app)) {
		add_completions(*each, command + " " + each->get_name(), cases, commands);
	}
}

constexpr const char *kCompletion = R"(# bash completion for {0}

# What compgen finds for the word under the cursor.
_kaq_offer() {{
	[[ $1 == -W ]] || compopt -o filenames 2>/dev/null
	mapfile -t COMPREPLY < <(compgen "$@" -- "$current")
}}

_kaq() {{
	local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
	local command={0} i
	COMPREPLY=()
	for ((i = 1; i < COMP_CWORD; i++)); do
		case "$command ${{COMP_WORDS[i]}}" in
		{1})
			command+=" ${{COMP_WORDS[i]}}"
			;;
		esac
	done
	case $command in
{2}	esac
}}

complete -F _kaq {0}
)";

} // namespace

std::map<std::string, std::string> man_pages(const CLI::App &program,
											 const ManualEdition &edition) {
	std::map<std::string, std::string> pages;
	pages[program.get_name() + ".1"] = page_of_program(program, edition);
	for (const CLI::App *each : verbs_of(program)) {
		pages[program.get_name() + "-" + each->get_name() + ".1"] =
			page_of_verb(program, *each, edition);
	}
	return pages;
}

std::string bash_completion(const CLI::App &program) {
	std::string cases;
	std::string commands;
	add_completions(program, program.get_name(), cases, commands);
	return fmt::format(kCompletion, program.get_name(), commands, cases);
}

} // namespace kaq
