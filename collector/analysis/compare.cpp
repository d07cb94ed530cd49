#include "analysis/compare.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <tuple>

#include "analysis/http_call.h"
#include "analysis/layers.h"
#include "analysis/statements.h"

namespace kaq {
namespace {

constexpr size_t kLongestName = 512;
constexpr size_t kLongestDetail = 2048;
constexpr size_t kLongestPath = 1024;

/* Rows by parent, name and detail. */
class Rows {
public:
	/* The row's index; -1 if there is no room for one more. */
	int32_t find_or_add(int32_t parent, std::string_view name, std::string_view detail) {
		auto known = index_.find({parent, std::string(name), std::string(detail)});
		if (known != index_.end()) {
			return known->second;
		}
		if (rows.size() >= kMostProfileRows) {
			return -1;
		}
		ProfileRow row;
		row.name = name;
		row.detail = detail;
		row.parent = parent;
		rows.push_back(std::move(row));
		auto added = static_cast<int32_t>(rows.size() - 1);
		index_.emplace(std::tuple(parent, std::string(name), std::string(detail)), added);
		return added;
	}

	std::vector<ProfileRow> rows;

private:
	std::map<std::tuple<int32_t, std::string, std::string>, int32_t> index_;
};

/* For each row of the profile its index among the rows, which get those that they lack; -1 where
 * there is no room. */
std::vector<int32_t> merge(Rows &rows, const Profile &profile) {
	std::vector<int32_t> places;
	for (const ProfileRow &row : profile.rows) {
		int32_t parent = row.parent < 0 ? -1 : places[static_cast<size_t>(row.parent)];
		bool is_lost = row.parent >= 0 && parent < 0;
		places.push_back(is_lost ? -1 : rows.find_or_add(parent, row.name, row.detail));
	}
	return places;
}

/* By span: statements and addresses. */
std::vector<std::string_view> details_of(const Transaction &transaction,
										 const Statements &statements,
										 std::vector<std::string> &kept) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<std::string_view> details(spans.size());
	for (const std::vector<Execution> *list : {&statements.executions, &statements.unused}) {
		for (const Execution &execution : *list) {
			std::string_view text = shortened(statements.texts[execution.text], kLongestDetail);
			details[static_cast<size_t>(execution.span)] = text;
			if (execution.prepared >= 0) {
				details[static_cast<size_t>(execution.prepared)] = text;
			}
		}
	}
	kept.reserve(spans.size());
	for (size_t i = 0; i < spans.size(); i++) {
		if (is_http_call(spans[i])) {
			details[i] = kept.emplace_back(endpoint_of(spans[i].host));
		}
	}
	return details;
}

/* The rows of two profiles side by side. */
class Alignment {
public:
	Alignment(const Profile &before, const Profile &after) {
		add(before, before_);
		add(after, after_);
	}

	const std::vector<ProfileRow> &rows() const {
		return rows_.rows;
	}

	/* Both may be null. */
	const ProfileRow *before(size_t row) const {
		return at(before_, row);
	}

	const ProfileRow *after(size_t row) const {
		return at(after_, row);
	}

	/* The names of the rows around one. */
	std::string path(size_t row) const {
		std::string text;
		int32_t at = rows_.rows[row].parent;
		while (at >= 0 && text.size() < kLongestPath) {
			const ProfileRow &each = rows_.rows[static_cast<size_t>(at)];
			text.insert(0, text.empty() ? "" : " > ");
			text.insert(0, each.name);
			at = each.parent;
		}
		return text.size() <= kLongestPath ? text : end_of(text);
	}

private:
	/* Whole characters of it. */
	static std::string end_of(const std::string &text) {
		size_t begin = text.size() - kLongestPath;
		while (begin < text.size() && (static_cast<unsigned char>(text[begin]) & 0xC0) == 0x80) {
			begin++;
		}
		return text.substr(begin);
	}

	void add(const Profile &profile, std::vector<const ProfileRow *> &side) {
		std::vector<int32_t> places = merge(rows_, profile);
		side.resize(rows_.rows.size());
		for (size_t i = 0; i < places.size(); i++) {
			if (places[i] >= 0) {
				side[static_cast<size_t>(places[i])] = &profile.rows[i];
			}
		}
	}

	static const ProfileRow *at(const std::vector<const ProfileRow *> &side, size_t row) {
		return row < side.size() ? side[row] : nullptr;
	}

	Rows rows_;
	std::vector<const ProfileRow *> before_;
	std::vector<const ProfileRow *> after_;
};

Change change_of(const ProfileRow &before, const ProfileRow &after) {
	if (before.count == 0) {
		return Change::kAdded;
	}
	if (after.count == 0) {
		return Change::kRemoved;
	}
	/* With the calls of before as long as they were, and the calls of after as long as they are. */
	double mean = static_cast<double>(before.own) / static_cast<double>(before.count);
	double by_count = mean * static_cast<double>(after.count - before.count);
	double by_duration = static_cast<double>(after.own - before.own) - by_count;
	return std::abs(by_count) >= std::abs(by_duration) ? Change::kCount : Change::kDuration;
}

Difference difference_of(const ProfileRow *before_row, const ProfileRow *after_row) {
	ProfileRow before = before_row == nullptr ? ProfileRow() : *before_row;
	ProfileRow after = after_row == nullptr ? ProfileRow() : *after_row;
	Difference difference;
	difference.change = change_of(before, after);
	difference.growth = after.own - before.own;
	difference.count_before = before.count;
	difference.count_after = after.count;
	difference.own_before = before.own;
	difference.own_after = after.own;
	difference.total_before = before.total;
	difference.total_after = after.total;
	return difference;
}

int64_t median(std::vector<int64_t> &values, size_t count) {
	values.resize(count);
	auto middle = values.begin() + static_cast<std::ptrdiff_t>(count / 2);
	std::nth_element(values.begin(), middle, values.end());
	return *middle;
}

/* The figures of one row in all transactions that have it. */
struct Figures {
	std::vector<int64_t> counts;
	std::vector<int64_t> totals;
	std::vector<int64_t> owns;
};

} // namespace

Profile profile_of(const Transaction &transaction) {
	const std::vector<Span> &spans = transaction.spans;
	std::vector<std::string> kept;
	Statements statements = statements_of(transaction);
	std::vector<std::string_view> details = details_of(transaction, statements, kept);
	std::vector<int64_t> own = self_times(transaction);
	std::vector<int32_t> places(spans.size());
	Rows rows;
	for (size_t i = 0; i < spans.size(); i++) {
		int32_t parent = i == 0 ? -1 : places[static_cast<size_t>(std::max(spans[i].parent, 0))];
		std::string_view name = shortened(spans[i].name, kLongestName);
		int32_t place = rows.find_or_add(parent, name, details[i]);
		places[i] = place < 0 ? parent : place;
		ProfileRow &row = rows.rows[static_cast<size_t>(places[i])];
		row.own += own[i];
		if (place >= 0) {
			row.layer = layer_of(spans[i]);
			row.count++;
			row.total += spans[i].duration();
		}
	}
	return {transaction.duration(), std::move(rows.rows)};
}

Profile typical_profile(const std::vector<const Transaction *> &transactions) {
	Rows rows;
	std::vector<Figures> figures;
	std::vector<int64_t> durations;
	for (const Transaction *transaction : transactions) {
		Profile profile = profile_of(*transaction);
		durations.push_back(profile.duration);
		std::vector<int32_t> places = merge(rows, profile);
		figures.resize(rows.rows.size());
		for (size_t i = 0; i < places.size(); i++) {
			if (places[i] >= 0) {
				Figures &each = figures[static_cast<size_t>(places[i])];
				each.counts.push_back(profile.rows[i].count);
				each.totals.push_back(profile.rows[i].total);
				each.owns.push_back(profile.rows[i].own);
			}
		}
	}
	Profile typical;
	typical.duration = median(durations, transactions.size());
	std::vector<int32_t> places(rows.rows.size(), -1);
	for (size_t i = 0; i < rows.rows.size(); i++) {
		ProfileRow row = rows.rows[i];
		row.count = median(figures[i].counts, transactions.size());
		if (row.count > 0) {
			row.total = median(figures[i].totals, transactions.size());
			row.own = median(figures[i].owns, transactions.size());
			row.parent = row.parent < 0 ? -1 : places[static_cast<size_t>(row.parent)];
			places[i] = static_cast<int32_t>(typical.rows.size());
			typical.rows.push_back(std::move(row));
		}
	}
	return typical;
}

struct ProfileSum::State {
	Rows rows;
	int64_t duration = 0;
};

ProfileSum::ProfileSum() : state_(std::make_unique<State>()) {
}

ProfileSum::~ProfileSum() = default;

void ProfileSum::add(const Profile &profile) {
	state_->duration += profile.duration;
	std::vector<int32_t> places = merge(state_->rows, profile);
	for (size_t i = 0; i < places.size(); i++) {
		if (places[i] >= 0) {
			ProfileRow &sum = state_->rows.rows[static_cast<size_t>(places[i])];
			const ProfileRow &row = profile.rows[i];
			sum.layer = row.layer;
			sum.count += row.count;
			sum.total += row.total;
			sum.own += row.own;
		}
	}
}

Profile ProfileSum::take() {
	Profile sum = {state_->duration, std::move(state_->rows.rows)};
	state_ = std::make_unique<State>();
	return sum;
}

std::string_view change_name(Change change) {
	static constexpr std::array<std::string_view, 4> kNames = {"added", "removed", "count",
															   "duration"};
	return kNames[static_cast<size_t>(change)];
}

std::vector<Difference> compare(const Profile &before, const Profile &after) {
	Alignment alignment(before, after);
	std::vector<std::pair<size_t, Difference>> found;
	for (size_t row = 0; row < alignment.rows().size(); row++) {
		Difference difference = difference_of(alignment.before(row), alignment.after(row));
		if (difference.growth != 0 || difference.count_before != difference.count_after) {
			found.emplace_back(row, std::move(difference));
		}
	}
	std::stable_sort(found.begin(), found.end(), [](const auto &one, const auto &other) {
		return std::abs(one.second.growth) > std::abs(other.second.growth);
	});
	found.resize(std::min(found.size(), kMostDifferences));
	std::vector<Difference> differences;
	for (auto &[row, difference] : found) {
		difference.name = alignment.rows()[row].name;
		difference.detail = alignment.rows()[row].detail;
		difference.path = alignment.path(row);
		differences.push_back(std::move(difference));
	}
	return differences;
}

} // namespace kaq
