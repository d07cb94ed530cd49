/* The names that the query language knows. No state; any thread. */
#pragma once

#include <string_view>
#include <variant>
#include <vector>

#include "store/filter.h"

namespace kaq {

enum class Unit { kCount, kTime, kBytes };

/* What is:, has:, since: and until: are. */
enum class SpecialField { kIs, kHas, kSince, kUntil };

struct QueryField {
	std::string_view name;
	std::string_view other_name; /* also understood; empty if there is none */
	std::variant<TextField, NumberField, WordField, SpecialField> target;
	Unit unit; /* of a number */
	std::string_view help;
};

/* In the order in which people are told of them. */
const std::vector<QueryField> &query_fields();

/* Without regard to case; null if there is none. */
const QueryField *find_field(std::string_view name);

/* A value that is one of a few. */
struct NamedValue {
	std::string_view name;
	std::string_view help;
	Condition (*condition)();
};

/* Of is: and has:, in the order in which people are told of them. */
const std::vector<NamedValue> &named_values(SpecialField field);

struct NamedUnit {
	std::string_view name;
	int64_t factor;
};

/* The largest first; the last one counts where a unit is left out. */
const std::vector<NamedUnit> &units_of(Unit unit);

/* The one of the names that was most likely meant; empty if none is near. */
std::string_view nearest(std::string_view written, const std::vector<std::string_view> &names);

/* Without regard to the case of ASCII letters. */
bool is_same_name(std::string_view one, std::string_view other);

} // namespace kaq
