/* What the verbs about figures have in common: their options, and cells made of JSON whose numbers
 * may be null. No state. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/client.h"
#include "cli/command_line.h"
#include "cli/table.h"

namespace kaq {

struct FigureOptions {
	CommonOptions common;
	FilterOptions filter;
	std::string transaction;
	std::string sort;
	int64_t count = 0; /* rows; 0: as many as are usual */
};

/* `orders` says what can be sorted by. */
void add_figure_options(CLI::App &verb, FigureOptions &options, const std::string &orders);
Parameters parameters_of(const FigureOptions &options, int64_t usual_count);

/* Tables have all their columns from this width on, or where no terminal limits it. */
constexpr int kWide = 120;
bool is_wide(const Terminal &terminal);

/* Nothing where it is missing or null. */
std::optional<double> number_of(const nlohmann::json &row, const char *name);
int64_t whole_of(const nlohmann::json &row, const char *name);
std::string string_of(const nlohmann::json &row, const char *name);

/* Cells; "-" where there is no number. */
std::string duration_cell(const nlohmann::json &row, const char *name);
std::string share_cell(const nlohmann::json &row, const char *name);
/* What is above 5 % red, above nothing yellow. */
Cell error_cell(const nlohmann::json &row, const char *name = "error_share");

/* "0.02", "3.4", "12 340" */
std::string rate_text(double rate);

/* "/cart", "/cart and 3 others" of the parts that an answer names. */
std::string parts_text(const nlohmann::json &row, const char *parts, const char *count);

} // namespace kaq
