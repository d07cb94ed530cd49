#include "query/figure_groups.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <tuple>
#include <unordered_map>

namespace kaq {
namespace {

constexpr size_t kCaller = 3; /* among a statement's details */
constexpr size_t kLevel = 3;  /* among a failure's details */

void add(GroupPart &part, const Figures &figures) {
	part.count += figures.count;
	part.total += figures.total;
}

size_t badness(const std::string &level) {
	static constexpr std::array<std::string_view, 3> kLevels = {"Notice", "Warning", "Error"};
	return static_cast<size_t>(std::find(kLevels.begin(), kLevels.end(), level) - kLevels.begin() +
							   1) %
		   (kLevels.size() + 1);
}

} // namespace

FigureKey key_of_group(FigureKey key) {
	key.transaction.clear();
	if (key.kind == FigureKind::kStatement) {
		key.details[kCaller].clear();
	} else {
		key.details = {};
	}
	return key;
}

std::vector<FigureGroup> groups_of(std::vector<FigureRow> rows) {
	std::unordered_map<int64_t, size_t> places;
	std::vector<FigureGroup> groups;
	for (FigureRow &row : rows) {
		FigureKey key = key_of_group(row.key);
		auto [place, is_new] = places.try_emplace(key.hash(), groups.size());
		if (is_new) {
			groups.emplace_back().key = std::move(key);
		}
		FigureGroup &group = groups[place->second];
		group.figures.add(row.figures);
		add(group.transactions[row.key.transaction], row.figures);
		if (row.key.kind == FigureKind::kStatement) {
			add(group.callers[row.key.details[kCaller]], row.figures);
		}
		if (row.key.kind == FigureKind::kFailure &&
			(is_new || badness(row.key.details[kLevel]) > badness(group.key.details[kLevel]))) {
			group.key.details = std::move(row.key.details);
		}
	}
	return groups;
}

std::vector<NamedPart> largest_parts(const std::map<std::string, GroupPart> &parts, size_t limit) {
	std::vector<NamedPart> named;
	named.reserve(parts.size());
	for (const auto &[name, part] : parts) {
		named.push_back({name, part});
	}
	std::stable_sort(named.begin(), named.end(), [](const NamedPart &one, const NamedPart &other) {
		return std::tie(one.part.total, one.part.count) >
			   std::tie(other.part.total, other.part.count);
	});
	named.resize(std::min(named.size(), limit));
	return named;
}

} // namespace kaq
