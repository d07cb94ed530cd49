/*
 * Lets through only so many different names, so that no visitor can make lists endless. A name that
 * has not come for one to two days makes room for another. One thread at a time.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

namespace kaq {

/* What stands for all names that were one too many. */
constexpr std::string_view kOtherNames = "(other)";

class NameCap {
public:
	explicit NameCap(size_t most) : most_(most) {
	}

	/* Whether this name is one of those that count. `now` in milliseconds. */
	bool admit(std::string_view name, int64_t now) {
		if (now - turned_ >= kDay || now < turned_) {
			turned_ = now;
			earlier_ = std::move(names_);
			names_.clear();
		}
		std::string text(name);
		if (names_.count(text) > 0) {
			return true;
		}
		size_t both = names_.size();
		bool was_there = earlier_.count(text) > 0;
		if (!was_there && both + earlier_.size() >= most_) {
			return false;
		}
		earlier_.erase(text);
		names_.insert(std::move(text));
		return true;
	}

private:
	static constexpr int64_t kDay = 24 * 3600 * 1000;

	const size_t most_;
	int64_t turned_ = 0;
	std::unordered_set<std::string> names_;
	std::unordered_set<std::string> earlier_;
};

} // namespace kaq
