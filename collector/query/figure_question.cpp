#include "query/figure_question.h"

#include <algorithm>
#include <cmath>

#include "query/parameters.h"
#include "query/ranking.h"

namespace kaq {
namespace {

constexpr int64_t kHour = 60 * kMinuteMs;
constexpr int64_t kDay = 24 * kHour;

int64_t minute_of(int64_t time) {
	return time - time % kMinuteMs;
}

} // namespace

FigureQuestion::FigureQuestion(ServiceContext &context, const Question &question)
	: context_(context), range_(range_of(context, question, kHour)), now_(context.clock()),
	  application_(text_of(question, "app")), transaction_(text_of(question, "txn")) {
}

bool FigureQuestion::is_application(const std::string &application) const {
	return application_.empty() || is_like(application, glob_of(application_));
}

/* A name may have an asterisk in it, which then is meant as well as any text is. */
bool FigureQuestion::is_transaction(const std::string &transaction) const {
	return transaction_.empty() || is_like(transaction, transaction_);
}

std::vector<FigureRow> FigureQuestion::all_rows(FigureKind kind) const {
	FigureSearch search;
	search.kind = kind;
	search.range = range_;
	return context_.store.figures(search);
}

std::vector<FigureRow> FigureQuestion::rows(FigureKind kind) const {
	std::vector<FigureRow> rows = all_rows(kind);
	keep_if(rows, [this](const FigureRow &row) {
		return is_application(row.key.application) && is_transaction(row.key.transaction);
	});
	return rows;
}

std::vector<AskedCount> FigureQuestion::asked() const {
	return context_.store.asked(range_, "");
}

Condition FigureQuestion::with_verdict() const {
	And all;
	all.conditions.push_back({TextIs{TextField::kVerdict, "*"}});
	if (!application_.empty()) {
		all.conditions.push_back({TextIs{TextField::kApplication, glob_of(application_)}});
	}
	if (!transaction_.empty()) {
		all.conditions.push_back({TextIs{TextField::kName, transaction_}});
	}
	return {std::move(all)};
}

double FigureQuestion::minutes(const std::vector<FigureRow> &rows) const {
	int64_t begin = std::max<int64_t>(range_.from, 0);
	int64_t end = std::min(range_.to, now_);
	bool was_there = begin > kDay && !context_.store.asked({begin - kDay, begin}, "").empty();
	if (!was_there && !rows.empty()) {
		int64_t first = end;
		for (const FigureRow &row : rows) {
			first = std::min(first, row.figures.first);
		}
		begin = std::max(begin, first);
	}
	return std::max(1.0, static_cast<double>(end - minute_of(begin)) / kMinuteMs);
}

nlohmann::json FigureQuestion::range_json() const {
	return {{"from_ms", minute_of(std::max<int64_t>(range_.from, 0))},
			{"to_ms", std::min(range_.to, now_)}};
}

double rounded(double value) {
	return std::round(value * 1e4) / 1e4;
}

void add_durations(nlohmann::json &target, const Figures &figures) {
	const Histogram &durations = figures.durations;
	nlohmann::json none;
	for (auto [name, share] : {std::pair("p50_ms", 0.5), {"p95_ms", 0.95}, {"p99_ms", 0.99}}) {
		target[name] = durations.count() > 0 ? nlohmann::json(durations.percentile(share)) : none;
	}
	bool has_any = figures.count > 0 && durations.count() > 0;
	target["mean_ms"] = has_any ? nlohmann::json(rounded(static_cast<double>(figures.total) /
														 static_cast<double>(figures.count)))
								: none;
	target["longest_ms"] = has_any ? nlohmann::json(figures.longest) : none;
}

} // namespace kaq
