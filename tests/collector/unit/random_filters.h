/* Filters of any shape, as the language can say them. */
#pragma once

#include <random>

#include "analysis/findings.h"
#include "query/values.h"
#include "store/filter.h"

class RandomFilters {
public:
	explicit RandomFilters(unsigned seed) : random_(seed) {
	}

	kaq::Filter next() {
		kaq::Filter filter;
		if (below(3) == 0) {
			filter.range.from = kaq::kEarliestTime + below(1000000);
		}
		if (below(3) == 0) {
			filter.range.to = kaq::kNumberLimit - 1 - below(1000000);
		}
		if (below(20) != 0) {
			filter.condition = condition(4);
		}
		return filter;
	}

private:
	kaq::Condition text() {
		auto field = static_cast<kaq::TextField>(below(9));
		/* A query can name no kind of findings that there is not. */
		const std::vector<std::string_view> &kinds = kaq::finding_names();
		bool is_kind = field == kaq::TextField::kVerdict;
		return {kaq::TextIs{field, is_kind ? std::string(kinds[below(kinds.size())]) : glob()}};
	}

	kaq::Condition condition(int depth) {
		switch (below(depth > 0 ? 7 : 4)) {
		case 0:
			return text();
		case 1:
			return {number()};
		case 2:
			return {words()};
		case 3:
			return {kaq::FlagIs{static_cast<kaq::Flag>(below(3))}};
		case 4:
			return {kaq::And{conditions(depth)}};
		case 5:
			return {kaq::Or{conditions(depth)}};
		default:
			return {kaq::Not{std::make_shared<const kaq::Condition>(condition(depth - 1))}};
		}
	}

	std::vector<kaq::Condition> conditions(int depth) {
		std::vector<kaq::Condition> list;
		for (int64_t count = 2 + below(2); count > 0; count--) {
			list.push_back(condition(depth - 1));
		}
		return list;
	}

	std::string glob() {
		static const std::vector<std::string> parts = {"a",   "B", " ", "\"", "\\\\", "\\*",
													   "\\?", "*", "?", "(",  ")",    "-",
													   ":",   "/", "<", "é",  "or",   "\n"};
		std::string text;
		for (int64_t count = below(6); count > 0; count--) {
			const std::string &part =
				parts[static_cast<size_t>(below(static_cast<int64_t>(parts.size())))];
			bool is_second_star = part == "*" && was_star_;
			text += is_second_star ? "" : part;
			was_star_ = part == "*";
		}
		was_star_ = false;
		return text;
	}

	kaq::NumberIs number() {
		kaq::NumberIs number;
		number.field = static_cast<kaq::NumberField>(below(10));
		int64_t first = amount();
		int64_t second = amount();
		int64_t shape = below(4);
		if (shape != 0) {
			number.least = std::min(first, second);
		}
		if (shape != 1) {
			number.most = std::max(first, second);
		}
		if (shape == 2) {
			number.most = number.least;
		}
		return number;
	}

	int64_t amount() {
		static const int64_t units[] = {1, 100, 1000, 1024, 60000, 3600000, 1 << 20, 1 << 30};
		static const int64_t limit = kaq::kNumberLimit;
		return below(50) == 0 ? limit - below(2) : below(700) * units[below(8)];
	}

	kaq::Words words() {
		static const char *all[] = {"from", "product", "or",  "and", "not",
									"1",    "größe",   "a_b", "is"};
		kaq::Words words;
		words.field = static_cast<kaq::WordField>(below(4));
		for (int64_t count = 1 + below(3); count > 0; count--) {
			words.words.emplace_back(all[below(9)]);
		}
		words.is_prefix = below(3) == 0;
		return words;
	}

	int64_t below(int64_t limit) {
		return static_cast<int64_t>(random_() % static_cast<uint64_t>(limit));
	}

	std::mt19937_64 random_;
	bool was_star_ = false;
};
