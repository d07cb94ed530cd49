#include "query/figure_question.h"

#include <algorithm>
#include <cmath>
#include <map>

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
	const std::string &host = text_of(question, "host");
	if (host.empty() && text_of(question, "q").empty()) {
		return;
	}
	filter_ = query_of(context, question);
	filter_->range.from =
		std::max(filter_->range.from, minute_of(std::max<int64_t>(range_.from, 0)));
	filter_->range.to = std::min(filter_->range.to, range_.to);
	if (!host.empty()) {
		filter_->condition =
			both({TextIs{TextField::kHost, glob_of(host)}}, std::move(filter_->condition));
	}
}

bool FigureQuestion::is_application(const std::string &application) const {
	return application_.empty() || is_like(application, glob_of(application_));
}

/* A name may have an asterisk in it, which then is meant as well as any text is. */
bool FigureQuestion::is_transaction(const std::string &transaction) const {
	return transaction_.empty() || is_like(transaction, transaction_);
}

std::vector<FigureStep> FigureQuestion::all_steps(FigureKind kind, int64_t step) const {
	if (filter_) {
		RequestSums sums = context_.store.request_sums(*filter_, step);
		is_partial_ = is_partial_ || sums.is_partial;
		return std::move(sums.steps);
	}
	FigureSearch search;
	search.kind = kind;
	search.range = range_;
	return context_.store.figure_steps(search, step);
}

std::vector<FigureStep> FigureQuestion::steps(FigureKind kind, int64_t step) const {
	std::vector<FigureStep> steps = all_steps(kind, step);
	keep_if(steps, [this](const FigureStep &each) {
		return is_application(each.key.application) && is_transaction(each.key.transaction);
	});
	return steps;
}

FigureKind FigureQuestion::sums_kind() const {
	return transaction_.empty() ? FigureKind::kApplication : FigureKind::kTransaction;
}

std::vector<FigurePoint> FigureQuestion::points(FigureKind kind, const std::string &text,
												int64_t step) const {
	if (!filter_) {
		FigureSearch search;
		search.kind = kind == FigureKind::kTransaction ? sums_kind() : kind;
		search.range = range_;
		search.application = application_;
		search.transaction = transaction_;
		search.text = text;
		return context_.store.curve(search, step);
	}
	std::map<int64_t, Figures> sums;
	for (const FigureStep &each : all_steps(kind, step)) {
		if ((application_.empty() || each.key.application == application_) &&
			(transaction_.empty() || each.key.transaction == transaction_)) {
			sums[each.time].add(each.figures);
		}
	}
	std::vector<FigurePoint> points;
	points.reserve(sums.size());
	for (auto &[time, figures] : sums) {
		points.push_back({time, std::move(figures)});
	}
	return points;
}

std::vector<FigureRow> FigureQuestion::all_rows(FigureKind kind) const {
	if (filter_) {
		std::vector<FigureRow> rows;
		for (FigureStep &each : all_steps(kind, 0)) {
			rows.push_back({std::move(each.key), std::move(each.figures)});
		}
		return rows;
	}
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
	return filter_ ? std::vector<AskedCount>() : context_.store.asked(range_, "");
}

Filter FigureQuestion::stored() const {
	Filter filter = filter_ ? *filter_ : Filter{range_, {And{}}};
	if (!application_.empty()) {
		filter.condition = both({TextIs{TextField::kApplication, glob_of(application_)}},
								std::move(filter.condition));
	}
	if (!transaction_.empty()) {
		filter.condition =
			both({TextIs{TextField::kName, transaction_}}, std::move(filter.condition));
	}
	return filter;
}

Search FigureQuestion::with_verdict(size_t most) const {
	Search search;
	search.limit = most;
	search.filter = stored();
	search.filter.condition =
		both({TextIs{TextField::kVerdict, "*"}}, std::move(search.filter.condition));
	return search;
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

nlohmann::json percentile_json(const Figures &figures, double share) {
	if (figures.durations.count() == 0) {
		return {};
	}
	/* The middle of a bucket may lie beyond all that is in it. */
	int64_t value = figures.durations.percentile(share);
	return figures.count > 0 ? std::min(value, figures.longest) : value;
}

void add_durations(nlohmann::json &target, const Figures &figures) {
	const Histogram &durations = figures.durations;
	nlohmann::json none;
	for (auto [name, share] : {std::pair("p50_ms", 0.5), {"p95_ms", 0.95}, {"p99_ms", 0.99}}) {
		target[name] = percentile_json(figures, share);
	}
	bool has_any = figures.count > 0 && durations.count() > 0;
	target["mean_ms"] = has_any ? nlohmann::json(rounded(static_cast<double>(figures.total) /
														 static_cast<double>(figures.count)))
								: none;
	target["longest_ms"] = has_any ? nlohmann::json(figures.longest) : none;
}

} // namespace kaq
