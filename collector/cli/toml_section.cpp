#include <algorithm>
#include <cmath>
#include <numeric>

#include <fmt/format.h>

#include "cli/toml_section_private.h"
#include "util/control_character.h"
#include "util/units.h"

namespace kaq {
namespace {

/* Longer keys are no misspellings of ours, and mistakes are to be read. */
constexpr size_t kLongestKey = 64;
constexpr size_t kMostWrongLetters = 2;

/* How many letters have to be changed, added or left out to make one of the other. */
size_t distance(std::string_view left, std::string_view right) {
	std::vector<size_t> row(right.size() + 1);
	std::iota(row.begin(), row.end(), size_t(0));
	for (size_t i = 0; i < left.size(); i++) {
		size_t diagonal = row[0];
		row[0] = i + 1;
		for (size_t j = 0; j < right.size(); j++) {
			size_t changed = diagonal + (left[i] != right[j]);
			diagonal = row[j + 1];
			row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
		}
	}
	return row.back();
}

std::string printable(std::string_view text) {
	std::string shown(text.substr(0, kLongestKey));
	std::replace_if(shown.begin(), shown.end(), is_control_character, '?');
	return shown + (text.size() > kLongestKey ? "..." : "");
}

std::string unknown_text(std::string_view key, const std::vector<std::string_view> &known) {
	std::string text = "there is no such setting";
	auto nearest = std::min_element(known.begin(), known.end(), [key](auto left, auto right) {
		return distance(key, left) < distance(key, right);
	});
	if (nearest != known.end() && distance(key, *nearest) <= kMostWrongLetters) {
		text += fmt::format("; did you mean \"{}\"?", *nearest);
	}
	return text;
}

/* A limit as it is shown, without a fraction where there is none. */
std::string number_text(double number) {
	return fmt::format("{:.15g}", number);
}

} // namespace

bool is_web_address(const std::string &text) {
	size_t slashes = text.find("://");
	std::string_view scheme = std::string_view(text).substr(0, slashes);
	return (scheme == "http" || scheme == "https") && slashes + 3 < text.size() &&
		   std::all_of(text.begin(), text.end(),
					   [](char each) { return each > ' ' && each < 127; });
}

std::string TomlSection::full_name(std::string_view key) const {
	std::string shown = printable(key);
	return name_.empty() || shown.empty() ? name_ + shown : name_ + "." + shown;
}

void TomlSection::tell(const toml::source_region &place, const std::string &name,
					   const std::string &text) {
	mistakes_.push_back(
		{static_cast<int>(place.begin.line), name.empty() ? text : name + ": " + text});
}

void TomlSection::mistake(std::string_view key, const std::string &text) {
	const toml::node *node = table_.get(key);
	tell(node ? node->source() : table_.source(), full_name(key), text);
}

const toml::node *TomlSection::take(std::string_view key) {
	known_.push_back(key);
	return table_.get(key);
}

void TomlSection::read(std::string_view key, bool &target) {
	const toml::node *node = take(key);
	if (node && !node->is_boolean()) {
		mistake(key, "has to be true or false");
	} else if (node) {
		target = node->as_boolean()->get();
	}
}

void TomlSection::read(std::string_view key, std::string &target) {
	const toml::node *node = take(key);
	if (node && !node->is_string()) {
		mistake(key, "has to be a text in quotes");
	} else if (node) {
		target = node->as_string()->get();
	}
}

void TomlSection::read(std::string_view key, std::vector<std::string> &target) {
	const toml::node *node = take(key);
	if (!node) {
		return;
	}
	const toml::array *array = node->as_array();
	bool are_texts = array && std::all_of(array->begin(), array->end(),
										  [](const auto &each) { return each.is_string(); });
	if (!are_texts) {
		mistake(key, "has to be a list of texts, such as [\"one\", \"two\"]");
		return;
	}
	target.clear();
	for (const toml::node &each : *array) {
		target.push_back(each.as_string()->get());
	}
}

void TomlSection::number(std::string_view key, double &target, double least, double most,
						 bool is_whole) {
	const toml::node *node = take(key);
	if (!node) {
		return;
	}
	std::optional<double> value = node->is_number() ? node->value<double>() : std::nullopt;
	if (!value || (is_whole && !node->is_integer()) || !(*value >= least && *value <= most)) {
		mistake(key, fmt::format("has to be a {}number from {} to {}", is_whole ? "whole " : "",
								 number_text(least), number_text(most)));
		return;
	}
	target = *value;
}

void TomlSection::read_size(std::string_view key, uint64_t &target, uint64_t least, uint64_t most) {
	const toml::node *node = take(key);
	if (!node) {
		return;
	}
	std::optional<uint64_t> size =
		node->is_string() ? parse_size(node->as_string()->get()) : std::nullopt;
	if (!size || *size < least || *size > most) {
		mistake(key, fmt::format("has to be a size from \"{}\" to \"{}\", with its unit",
								 size_text(least), size_text(most)));
		return;
	}
	target = *size;
}

void TomlSection::read_duration(std::string_view key, std::chrono::milliseconds &target,
								std::chrono::milliseconds least, std::chrono::milliseconds most) {
	const toml::node *node = take(key);
	if (!node) {
		return;
	}
	std::optional<std::chrono::milliseconds> duration =
		node->is_string() ? parse_duration(node->as_string()->get()) : std::nullopt;
	if (!duration || *duration < least || *duration > most) {
		mistake(key, fmt::format("has to be a time from \"{}\" to \"{}\", with its unit",
								 duration_text(least), duration_text(most)));
		return;
	}
	target = *duration;
}

void TomlSection::read_share(std::string_view key, double &target) {
	const toml::node *node = take(key);
	if (!node) {
		return;
	}
	std::optional<double> share = node->is_string()   ? parse_percentage(node->as_string()->get())
								  : node->is_number() ? node->value<double>()
													  : std::nullopt;
	if (!share || !(*share >= 0 && *share <= 1)) {
		mistake(key, "has to be a number from 0 to 1, or a text such as \"10%\"");
		return;
	}
	target = *share;
}

void TomlSection::section(std::string_view key, const Reader &reader) {
	const toml::node *node = take(key);
	if (node && !node->is_table()) {
		mistake(key, fmt::format("has to be a section, [{}]", full_name(key)));
	} else if (node) {
		TomlSection inner(*node->as_table(), full_name(key), mistakes_);
		reader(inner);
		inner.finish();
	}
}

void TomlSection::sections(std::string_view key, size_t most, const Reader &reader) {
	const toml::node *node = take(key);
	if (!node) {
		return;
	}
	const toml::array *array = node->as_array();
	bool are_tables = array && std::all_of(array->begin(), array->end(),
										   [](const auto &each) { return each.is_table(); });
	if (!are_tables || array->size() > most) {
		mistake(key, fmt::format("has to be a list of at most {} sections, [[{}]]", most,
								 full_name(key)));
		return;
	}
	for (const toml::node &each : *array) {
		TomlSection inner(*each.as_table(), full_name(key), mistakes_);
		reader(inner);
		inner.finish();
	}
}

void TomlSection::finish() {
	for (const auto &[key, node] : table_) {
		std::string_view name = key.str();
		if (std::find(known_.begin(), known_.end(), name) == known_.end()) {
			tell(key.source(), full_name(name), unknown_text(name.substr(0, kLongestKey), known_));
		}
	}
}

} // namespace kaq
