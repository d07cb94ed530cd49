/*
 * A table of a TOML file whose keys are asked for one by one. What has the wrong type or value, and
 * in the end each key that nobody asked for, becomes a mistake with its line.
 *
 * Order of calls: constructor, what reads keys, finish(). The table and the mistakes outlive it.
 */
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <tl/expected.hpp>
#include <toml++/toml.h>

#include "cli/configuration.h"

namespace kaq {

class TomlSection {
public:
	/* `name` is what the file calls it; empty for the whole file. */
	TomlSection(const toml::table &table, std::string name, ConfigurationMistakes &mistakes)
		: table_(table), name_(std::move(name)), mistakes_(mistakes) {
	}

	/* A key that is not there leaves its target as it is; so does one with a mistake. */
	void read(std::string_view key, bool &target);
	void read(std::string_view key, std::string &target);
	void read(std::string_view key, std::vector<std::string> &target);
	template <typename Number>
	void read_number(std::string_view key, Number &target, Number least, Number most) {
		double value = static_cast<double>(target);
		bool is_whole = std::is_integral_v<Number>;
		number(key, value, static_cast<double>(least), static_cast<double>(most), is_whole);
		target = static_cast<Number>(value);
	}
	void read_size(std::string_view key, uint64_t &target, uint64_t least, uint64_t most);
	void read_duration(std::string_view key, std::chrono::milliseconds &target,
					   std::chrono::milliseconds least, std::chrono::milliseconds most);
	/* A number from 0 to 1, or "10%". */
	void read_share(std::string_view key, double &target);

	/* Calls for the table of that key, or for each table of its list, and finishes it. */
	using Reader = std::function<void(TomlSection &)>;
	void section(std::string_view key, const Reader &reader);
	void sections(std::string_view key, size_t most, const Reader &reader);

	/* The key is known, and its value does not count. */
	void skip(std::string_view key) {
		take(key);
	}
	bool has(std::string_view key) const {
		return table_.contains(key);
	}
	/* Tells a mistake about a key; without one about the section. */
	void mistake(std::string_view key, const std::string &text);
	void finish();

private:
	const toml::node *take(std::string_view key);
	void number(std::string_view key, double &target, double least, double most, bool is_whole);
	void tell(const toml::source_region &place, const std::string &name, const std::string &text);
	std::string full_name(std::string_view key) const;

	const toml::table &table_;
	const std::string name_;
	ConfigurationMistakes &mistakes_;
	std::vector<std::string_view> known_;
};

/* Whether a text is a URL that begins with http:// or https://. */
bool is_web_address(const std::string &text);

} // namespace kaq
