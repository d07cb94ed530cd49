#include "cli/figure_text.h"

#include <CLI/CLI.hpp>

#include <cmath>

#include <fmt/format.h>

#include "cli/format.h"

namespace kaq {
namespace {

constexpr double kManyErrors = 0.05;

} // namespace

void add_figure_options(CLI::App &verb, FigureOptions &options, const std::string &orders) {
	verb.add_option("--txn", options.transaction,
					"only of these transactions; '*' is any text, as in '/cart*'")
		->type_name("NAME");
	verb.add_option("--sort", options.sort, "the largest first: " + orders)->type_name("BY");
	verb.add_option("-n,--count", options.count, "at most N rows")
		->type_name("N")
		->check(CLI::Range(1, 10000));
	add_range_options(verb, options.filter);
	add_common_options(verb, options.common);
	verb.footer("Without --since it is the last hour.");
}

Parameters parameters_of(const FigureOptions &options, int64_t usual_count) {
	Parameters parameters = parameters_of(options.filter);
	parameters["txn"] = options.transaction;
	parameters["sort"] = options.sort;
	parameters["limit"] = std::to_string(options.count > 0 ? options.count : usual_count);
	return parameters;
}

bool is_wide(const Terminal &terminal) {
	return terminal.width == 0 || terminal.width >= kWide;
}

std::optional<double> number_of(const nlohmann::json &row, const char *name) {
	auto found = row.find(name);
	return found != row.end() && found->is_number() ? std::optional(found->get<double>())
													: std::nullopt;
}

int64_t whole_of(const nlohmann::json &row, const char *name) {
	return std::llround(number_of(row, name).value_or(0));
}

std::string string_of(const nlohmann::json &row, const char *name) {
	auto found = row.find(name);
	return found != row.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string duration_cell(const nlohmann::json &row, const char *name) {
	std::optional<double> number = number_of(row, name);
	return number ? duration_text(std::llround(*number)) : "-";
}

std::string share_cell(const nlohmann::json &row, const char *name) {
	std::optional<double> number = number_of(row, name);
	return number ? share_text(*number, 1) : "-";
}

Cell error_cell(const nlohmann::json &row, const char *name) {
	double share = number_of(row, name).value_or(0);
	Colour colour = share > kManyErrors ? Colour::kRed : Colour::kYellow;
	return {share_cell(row, name), share > 0 ? colour : Colour::kNone};
}

std::string rate_text(double rate) {
	if (rate >= 100) {
		return count_text(std::llround(rate));
	}
	return fmt::format(rate >= 1 || rate == 0 ? "{:.1f}" : "{:.2f}", rate);
}

std::string parts_text(const nlohmann::json &row, const char *parts, const char *count) {
	auto found = row.find(parts);
	if (found == row.end() || !found->is_array() || found->empty()) {
		return "";
	}
	std::string text = string_of(found->front(), "name");
	int64_t others = whole_of(row, count) - 1;
	return others > 0 ? text + " and " + count_of(others, "other", "others") : text;
}

} // namespace kaq
