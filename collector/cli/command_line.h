/*
 * What can be typed behind `kaq`. Each function adds a verb with its options; when that is what was
 * typed, its callback does it and sets the exit status.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/verbs.h"

namespace CLI {
class App;
} // namespace CLI

namespace kaq {

/* Exit statuses beside kMisunderstood. */
constexpr int kDone = 0;
constexpr int kFailed = 1; /* it could not be done, or nothing was found */

using AddVerb = void (*)(CLI::App &app, int &status);

void add_collect(CLI::App &app, int &status);
void add_config(CLI::App &app, int &status);
void add_tail(CLI::App &app, int &status);
void add_top(CLI::App &app, int &status);
void add_queries(CLI::App &app, int &status);
void add_errors(CLI::App &app, int &status);
void add_calls(CLI::App &app, int &status);
void add_find(CLI::App &app, int &status);
void add_show(CLI::App &app, int &status);
void add_compare(CLI::App &app, int &status);
void add_export(CLI::App &app, int &status);
void add_pin(CLI::App &app, int &status);
void add_unpin(CLI::App &app, int &status);
void add_forget(CLI::App &app, int &status);
void add_mark(CLI::App &app, int &status);
void add_open(CLI::App &app, int &status);
void add_destinations(CLI::App &app, int &status);
void add_doctor(CLI::App &app, int &status);
void add_resume(CLI::App &app, int &status);

/* In the order in which help names them. */
const std::vector<AddVerb> &verbs();

/* The program with all verbs, for whom it sets the status. The status outlives it. */
std::unique_ptr<CLI::App> make_command_line(int &status);

/* Does what the arguments say; the exit status. */
int run_command_line(int count, char **arguments);

/* Where the collector is and how its answers are shown; most verbs have these. */
struct CommonOptions {
	std::string store;         /* empty: the configuration's */
	std::string configuration; /* file; empty: the usual one */
	bool is_json = false;
};

void add_store_option(CLI::App &verb, std::string &store);
void add_configuration_option(CLI::App &verb, std::string &file);
void add_common_options(CLI::App &verb, CommonOptions &options);

/* Which requests; each narrows the others. */
struct FilterOptions {
	std::string query;
	std::string from;
	std::string to;
	std::string application;
};

void add_range_options(CLI::App &verb, FilterOptions &options);
void add_query_option(CLI::App &verb, FilterOptions &options);

} // namespace kaq
