#include "store/figure_sums.h"

namespace kaq {
namespace {

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kEarliest = 400LL * 24 * 60 * kMinute;
constexpr int64_t kLatest = 5 * kMinute;

/* When a request counts: a host's clock may be wrong, and a payload may say anything. */
int64_t time_of(int64_t start, int64_t now) {
	return start < now - kEarliest || start > now + kLatest ? now : start;
}

/* Without what a forked process has in common with the one that it comes from. */
Figures figures_of(const Record &record, int64_t time) {
	Figures figures = figures_of(record.summary, time);
	figures.queries -= record.repeated.queries;
	figures.query_time -= record.repeated.query_time;
	figures.calls -= record.repeated.calls;
	figures.external_time -= record.repeated.external_time;
	return figures;
}

/* Of what happened several times in one request. */
template <typename Fact>
Figures figures_of(const Fact &fact, const Summary &summary, int64_t time) {
	Figures figures;
	figures.requests = 1;
	figures.count = fact.count;
	figures.failed = fact.failed;
	figures.total = fact.total;
	figures.longest = fact.longest;
	figures.first = figures.last = time;
	figures.example = summary.id;
	for (int64_t duration : fact.durations) {
		figures.durations.add(duration);
	}
	return figures;
}

Figures figures_of(const FailureFacts &fact, const Summary &summary, int64_t time) {
	Figures figures;
	figures.requests = 1;
	figures.count = fact.count;
	figures.failed = fact.is_serious ? 1 : 0;
	figures.longest = summary.duration;
	figures.first = figures.last = time;
	figures.example = summary.id;
	return figures;
}

Figures figures_of(const RequestVerdict &verdict, const Summary &summary, int64_t time) {
	Figures figures;
	figures.requests = figures.count = 1;
	figures.total = figures.longest = verdict.gain;
	figures.first = figures.last = time;
	figures.example = summary.id;
	return figures;
}

} // namespace

void FigureSums::rename(Summary &summary, int64_t now) {
	if (!applications_.admit(summary.application, now)) {
		summary.application = kOtherNames;
	}
	auto [place, is_new] = by_application_.try_emplace(summary.application, caps_.names);
	if (!place->second.transactions.admit(summary.name, now)) {
		summary.name = kOtherNames;
		renamed_++;
	}
	/* Applications that have gone leave their caps behind. */
	if (is_new && by_application_.size() > 4 * caps_.applications) {
		by_application_.clear();
	}
}

void FigureSums::add(Record &record, int64_t now) {
	std::lock_guard lock(mutex_);
	rename(record.summary, now);
	int64_t time = time_of(record.summary.start, now);
	if (is_full() && minutes_.count(time - time % kMinute) == 0) {
		time = now;
	}
	Rows &rows = minutes_[time - time % kMinute];
	FigureKey key;
	key.application = record.summary.application;
	key.transaction = record.summary.name;
	int64_t hash = key.hash();
	if (is_full() && rows.count(hash) == 0) {
		key.transaction = record.summary.name = kOtherNames;
		hash = key.hash();
		renamed_++;
	}
	Figures figures = figures_of(record, time);
	FigureKey application;
	application.kind = FigureKind::kApplication;
	application.application = key.application;
	figures_at(std::move(key), hash, rows).add(figures);
	hash = application.hash();
	figures_at(std::move(application), hash, rows).add(figures);
	add_facts(record, now, rows);
}

Figures &FigureSums::figures_at(FigureKey key, int64_t hash, Rows &rows) {
	auto [row, is_new] = rows.try_emplace(hash);
	if (is_new) {
		row->second.key = std::move(key);
		rows_++;
	}
	return row->second.figures;
}

void FigureSums::add_facts(const Record &record, int64_t now, Rows &rows) {
	const Summary &summary = record.summary;
	int64_t time = time_of(summary.start, now);
	FigureKey key;
	key.application = summary.application;
	key.transaction = summary.name;
	key.kind = FigureKind::kStatement;
	for (const StatementFacts &fact : record.facts.statements) {
		key.text = fact.text;
		key.details = {fact.component, fact.server, fact.database, fact.caller};
		add_row(key, figures_of(fact, summary, time), now, rows);
	}
	key.kind = FigureKind::kHost;
	key.details = {};
	for (const HostFacts &fact : record.facts.hosts) {
		key.text = fact.host;
		add_row(key, figures_of(fact, summary, time), now, rows);
	}
	key.kind = FigureKind::kFailure;
	for (const FailureFacts &fact : record.facts.failures) {
		key.text = fact.key;
		key.details = {fact.type, fact.place, fact.message, fact.level};
		add_row(key, figures_of(fact, summary, time), now, rows);
	}
	if (!record.verdict.kinds.empty()) {
		key.kind = FigureKind::kFinding;
		key.text = record.verdict.kinds.front();
		key.details = {};
		add_row(key, figures_of(record.verdict, summary, time), now, rows);
	}
}

void FigureSums::add_row(FigureKey key, const Figures &figures, int64_t now, Rows &rows) {
	int64_t hash = key.hash();
	if (rows.count(hash) == 0) {
		auto application = by_application_.try_emplace(key.application, caps_.names).first;
		NameCap &cap = application->second.details[static_cast<size_t>(key.kind)];
		if (is_full() || !cap.admit({reinterpret_cast<const char *>(&hash), sizeof(hash)}, now)) {
			key.text = kOtherNames;
			key.details = {};
			hash = key.hash();
		}
	}
	figures_at(std::move(key), hash, rows).add(figures);
}

std::vector<FigurePeriod> FigureSums::take() {
	std::map<int64_t, Rows> taken;
	{
		std::lock_guard lock(mutex_);
		taken.swap(minutes_);
		rows_ = 0;
	}
	std::vector<FigurePeriod> periods;
	for (auto &[time, rows] : taken) {
		FigurePeriod period;
		period.time = time;
		for (auto &[hash, row] : rows) {
			period.rows.emplace_back(hash, std::move(row));
		}
		periods.push_back(std::move(period));
	}
	return periods;
}

void FigureSums::put_back(const std::vector<FigurePeriod> &periods) {
	std::lock_guard lock(mutex_);
	for (const FigurePeriod &period : periods) {
		Rows &rows = minutes_[period.time];
		for (const auto &[hash, row] : period.rows) {
			auto [place, is_new] = rows.try_emplace(hash);
			if (is_new) {
				place->second.key = row.key;
				rows_++;
			}
			place->second.figures.add(row.figures);
		}
	}
	while (minutes_.size() > kMostMinutes || (is_full() && minutes_.size() > 1)) {
		rows_ -= minutes_.begin()->second.size();
		minutes_.erase(minutes_.begin());
	}
}

int64_t FigureSums::renamed() const {
	std::lock_guard lock(mutex_);
	return renamed_;
}

} // namespace kaq
