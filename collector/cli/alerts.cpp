#include "cli/alerts.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "analysis/naming.h"
#include "cli/format.h"

namespace kaq {
namespace {

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;
/* Usual values are those of steps of that length. */
constexpr int64_t kStep = 10 * kMinute;
constexpr int64_t kAskedStep = 30 * kMinute;
constexpr int kDays = 7;
constexpr size_t kLeastSteps = 6;
constexpr double kLowShare = 0.1;
constexpr double kHighShare = 0.9;
/* A range is looked up again after an hour; of new ones so many in a minute. */
constexpr size_t kMostLookedUp = 200;
constexpr size_t kMostStates = 20000;
/* Fewer requests than that show nothing, however long they take to come. */
constexpr int64_t kLeastRequests = 3;
/* What is usual is taken to be at least that: a multiple of nothing is nothing. */
constexpr double kLeastTime = 10;
constexpr double kLeastErrorShare = 0.01;
constexpr double kLeastRate = 1;

double value_of(AlertMetric metric, const Figures &figures, int64_t requests, int64_t duration) {
	switch (metric) {
	case AlertMetric::kErrorShare:
		return figures.count > 0
				   ? static_cast<double>(figures.failed) / static_cast<double>(figures.count)
				   : 0;
	case AlertMetric::kRate:
		return static_cast<double>(requests) * kMinute / static_cast<double>(duration);
	case AlertMetric::kP95:
		break;
	}
	return static_cast<double>(figures.durations.percentile(0.95));
}

/* With the multiple that is allowed. */
bool is_out(double value, const UsualRange &usual, const AlertRule &rule) {
	if (usual.is_limit) {
		return value > usual.high;
	}
	double factor = rule.deviation.value_or(1);
	double least = rule.metric == AlertMetric::kP95          ? kLeastTime
				   : rule.metric == AlertMetric::kErrorShare ? kLeastErrorShare
															 : kLeastRate;
	if (value > std::max(usual.high, least) * factor) {
		return true;
	}
	return rule.metric == AlertMetric::kRate && usual.low >= least && value < usual.low / factor;
}

double at_share(const std::vector<double> &sorted, double share) {
	double place = std::round(share * static_cast<double>(sorted.size() - 1));
	return sorted[static_cast<size_t>(place)];
}

std::string clock_text(int64_t milliseconds) {
	std::time_t seconds = milliseconds / 1000;
	std::tm local{};
	char text[16];
	localtime_r(&seconds, &local);
	return std::string(text, strftime(text, sizeof text, "%H:%M", &local));
}

std::string rate_text(double rate) {
	return count_text(std::llround(rate));
}

std::string value_text(AlertMetric metric, double value) {
	switch (metric) {
	case AlertMetric::kErrorShare:
		return share_text(value, 1);
	case AlertMetric::kRate:
		return rate_text(value);
	case AlertMetric::kP95:
		break;
	}
	return duration_text(std::llround(value));
}

std::string usual_text(const Alert &alert) {
	if (alert.usual.is_limit) {
		return ", above the limit of " + value_text(alert.metric, alert.usual.high);
	}
	std::string low = value_text(alert.metric, alert.usual.low);
	std::string high = value_text(alert.metric, alert.usual.high);
	return ", usually " + (low == high ? low : low + " to " + high);
}

std::string text_of(const Alert &alert, int64_t now) {
	std::string name = printable(alert.application) + " " + printable(alert.transaction);
	std::string value = value_text(alert.metric, alert.value);
	std::string text;
	switch (alert.metric) {
	case AlertMetric::kErrorShare:
		text = "the share of failed requests of " + name + " is " + value;
		break;
	case AlertMetric::kRate:
		text = name + " has " + value + " requests a minute";
		break;
	case AlertMetric::kP95:
		text = "p95 of " + name + " is " + value;
		break;
	}
	return alert.is_over ? text + " again, after " + duration_text(now - alert.since)
						 : text + " since " + clock_text(alert.since) + usual_text(alert);
}

} // namespace

std::string id_of(const AlertRule &rule) {
	return fmt::format("{}\n{}\n{}\n{}\n{}\n{}\n{}", rule.application, rule.transaction,
					   static_cast<int>(rule.metric), rule.deviation.value_or(-1),
					   rule.limit.value_or(-1), rule.minutes.count(), rule.webhook);
}

FigureSource figure_source(Store &store) {
	return {
		[&store](const FigureSearch &search) { return store.figures(search); },
		[&store](const FigureSearch &search, int64_t step) { return store.curve(search, step); },
		[&store](const TimeRange &range) { return store.asked(range, ""); }};
}

void AlertEngine::use(const std::vector<AlertRule> &rules) {
	auto are_same = [](const AlertRule &left, const AlertRule &right) {
		return id_of(left) == id_of(right);
	};
	if (!std::equal(rules_.begin(), rules_.end(), rules.begin(), rules.end(), are_same)) {
		std::vector<AlertState> states = memory().states;
		rules_ = rules;
		states_.clear();
		known_.clear();
		for (const AlertState &state : states) {
			recall(state);
		}
	}
}

AlertMemory AlertEngine::memory() const {
	AlertMemory memory{last_, {}};
	for (const auto &[key, state] : states_) {
		memory.states.push_back(state);
		auto known = known_.find(key);
		if (known != known_.end()) {
			memory.states.back().usual = known->second.range;
		}
	}
	return memory;
}

void AlertEngine::recall(const AlertMemory &memory) {
	last_ = memory.last;
	for (const AlertState &state : memory.states) {
		recall(state);
	}
}

void AlertEngine::recall(const AlertState &state) {
	for (size_t rule = 0; rule < rules_.size(); rule++) {
		if (id_of(rules_[rule]) == state.rule && states_.size() < kMostStates) {
			Key key{rule, {state.application, state.transaction}};
			states_[key] = state;
			if (!rules_[rule].limit) {
				known_[key] = {state.usual, last_};
			}
		}
	}
}

/* What was on the way to be said begins anew if nobody has looked for as long as it takes. */
void AlertEngine::forget_before(int64_t minute) {
	for (auto each = states_.begin(); each != states_.end();) {
		int64_t time = rules_[each->first.first].minutes.count() * kMinute;
		if (minute - last_ <= time) {
			each++;
			continue;
		}
		each->second.in_since = 0;
		each = each->second.is_said ? std::next(each) : states_.erase(each);
	}
}

std::vector<Alert> AlertEngine::look(int64_t now) {
	std::vector<Alert> alerts;
	int64_t begin = now / kMinute * kMinute - kMinute;
	if (rules_.empty() || (has_looked_ && begin == last_)) {
		return alerts;
	}
	if (begin < last_) {
		/* The clock was set back: what is remembered has yet to happen. */
		states_.clear();
		known_.clear();
		past_ = AskedPast();
	}
	forget_before(begin);
	last_ = begin;
	has_looked_ = true;
	looked_up_ = 0;
	Minute minute = minute_at(begin);
	for (size_t rule = 0; rule < rules_.size(); rule++) {
		look_at(rule, minute, alerts);
	}
	return alerts;
}

AlertEngine::Minute AlertEngine::minute_at(int64_t begin) const {
	Minute minute;
	minute.begin = begin;
	FigureSearch search;
	search.range = {begin, begin + kMinute};
	for (FigureRow &row : source_.figures(search)) {
		minute.figures.emplace(Name{row.key.application, row.key.transaction},
							   std::move(row.figures));
	}
	for (const AskedCount &count : source_.asked(search.range)) {
		minute.asked[{count.application, count.name}] += count.asked;
	}
	return minute;
}

void AlertEngine::look_at(size_t rule, const Minute &minute, std::vector<Alert> &alerts) {
	const AlertRule &settings = rules_[rule];
	auto matches = [&settings](const Name &name) {
		return matches_glob(name.application, settings.application) &&
			   matches_glob(name.transaction, settings.transaction);
	};
	std::map<Name, Value> values;
	for (const auto &[name, figures] : minute.figures) {
		if (matches(name)) {
			auto asked = minute.asked.find(name);
			int64_t requests = asked == minute.asked.end() ? figures.count
														   : std::max(figures.count, asked->second);
			values[name] = {value_of(settings.metric, figures, requests, kMinute), requests};
		}
	}
	if (settings.metric == AlertMetric::kRate) {
		for (const auto &[name, count] : minute.asked) {
			if (matches(name)) {
				values.try_emplace(name, Value{static_cast<double>(count), count});
			}
		}
		/* Nothing is a rate, too, of what was there before. */
		for (auto known = known_.lower_bound({rule, {}});
			 known != known_.end() && known->first.first == rule; known++) {
			values.try_emplace(known->first.second);
		}
	}
	for (const auto &[name, value] : values) {
		judge({rule, name}, value, minute, alerts);
	}
}

void AlertEngine::judge(const Key &key, const Value &value, const Minute &minute,
						std::vector<Alert> &alerts) {
	UsualRange usual = usual_of(key, minute.begin);
	if (!usual.is_known) {
		return;
	}
	if (is_out(value.value, usual, rules_[key.first])) {
		note_out(key, value, minute.begin, usual, alerts);
	} else {
		note_in(key, minute.begin, usual, alerts);
	}
}

void AlertEngine::note_out(const Key &key, const Value &value, int64_t minute,
						   const UsualRange &usual, std::vector<Alert> &alerts) {
	if (states_.size() >= kMostStates && states_.count(key) == 0) {
		return;
	}
	const AlertRule &rule = rules_[key.first];
	AlertState &state = states_[key];
	if (state.out_since == 0) {
		state.rule = id_of(rule);
		state.application = key.second.application;
		state.transaction = key.second.transaction;
		state.out_since = minute;
	}
	state.in_since = 0;
	state.requests += value.requests;
	bool is_long = minute + kMinute - state.out_since >= rule.minutes.count() * kMinute;
	bool is_shown = state.requests >= kLeastRequests || rule.metric == AlertMetric::kRate;
	if (is_long && is_shown && !state.is_said) {
		alerts.push_back(alert_of(key, usual, {state.out_since, minute + kMinute}));
		state.is_said = true;
	}
}

void AlertEngine::note_in(const Key &key, int64_t minute, const UsualRange &usual,
						  std::vector<Alert> &alerts) {
	auto found = states_.find(key);
	if (found == states_.end()) {
		return;
	}
	AlertState &state = found->second;
	state.in_since = state.in_since == 0 ? minute : state.in_since;
	bool is_long = minute + kMinute - state.in_since >= rules_[key.first].minutes.count() * kMinute;
	if (state.is_said && is_long) {
		Alert alert = alert_of(key, usual, {state.in_since, minute + kMinute});
		int64_t back = state.in_since;
		alert.since = state.out_since;
		alert.is_over = true;
		alert.text = text_of(alert, back);
		alerts.push_back(std::move(alert));
	}
	if (!state.is_said || is_long) {
		states_.erase(found);
	}
}

Alert AlertEngine::alert_of(const Key &key, const UsualRange &usual, TimeRange period) const {
	const AlertRule &rule = rules_[key.first];
	Alert alert;
	alert.webhook = rule.webhook;
	alert.application = key.second.application;
	alert.transaction = key.second.transaction;
	alert.metric = rule.metric;
	alert.usual = usual;
	alert.since = period.from;
	FigureSearch search;
	search.range = period;
	search.application = alert.application;
	search.transaction = alert.transaction;
	Figures sum;
	for (const FigureRow &row : source_.figures(search)) {
		sum.add(row.figures);
	}
	int64_t asked = 0;
	if (rule.metric == AlertMetric::kRate) {
		for (const AskedCount &count : source_.asked(period)) {
			bool is_it = count.application == alert.application && count.name == alert.transaction;
			asked += is_it ? count.asked : 0;
		}
	}
	alert.value = value_of(rule.metric, sum, std::max(sum.count, asked), period.to - period.from);
	alert.text = text_of(alert, period.to);
	return alert;
}

UsualRange AlertEngine::usual_of(const Key &key, int64_t minute) {
	const AlertRule &rule = rules_[key.first];
	if (rule.limit) {
		return {0, *rule.limit, true, true};
	}
	auto found = known_.find(key);
	bool is_new = found == known_.end();
	/* While it is out of it, its range stays what it was. */
	bool is_old = !is_new && minute - found->second.time >= kHour && states_.count(key) == 0;
	if ((is_new || is_old) && looked_up_ < kMostLookedUp) {
		looked_up_++;
		if (is_new && known_.size() >= kMostStates) {
			known_.clear();
		}
		KnownRange &known = known_[key];
		known = {usual_from(rule, key.second, minute), minute};
		return known.range;
	}
	UsualRange unknown;
	unknown.is_known = false;
	return is_new ? unknown : found->second.range;
}

UsualRange AlertEngine::usual_from(const AlertRule &rule, const Name &name, int64_t minute) {
	std::vector<double> values;
	ask_past(rule.metric == AlertMetric::kRate ? minute : past_.time);
	bool is_asked = rule.metric == AlertMetric::kRate && past_.last_day.count(name) > 0;
	if (is_asked) {
		values = past_.same_hours[name];
	}
	for (int day = 1; day <= kDays && !is_asked; day++) {
		int64_t then = minute - day * kDay;
		std::vector<double> more = values_of(rule, name, {then - kHour, then + kHour});
		values.insert(values.end(), more.begin(), more.end());
	}
	if (values.size() < kLeastSteps) {
		/* The last minutes may be what is to be noticed. */
		int64_t end = minute - rule.minutes.count() * kMinute;
		values = is_asked ? past_.last_day[name] : values_of(rule, name, {minute - kDay, end});
	}
	UsualRange usual;
	usual.is_known = values.size() >= kLeastSteps;
	if (usual.is_known) {
		std::sort(values.begin(), values.end());
		usual.low = at_share(values, kLowShare);
		usual.high = at_share(values, kHighShare);
	}
	return usual;
}

/* Once an hour, for all names at once. */
void AlertEngine::ask_past(int64_t minute) {
	if (minute - past_.time < kHour) {
		return;
	}
	past_ = AskedPast();
	past_.time = minute;
	for (int day = 1; day <= kDays; day++) {
		int64_t then = minute - day * kDay;
		for (int64_t from = then - kHour; from < then + kHour; from += kAskedStep) {
			add_asked({from, from + kAskedStep}, past_.same_hours);
		}
	}
	for (int64_t from = minute - kDay; from < minute - kAskedStep; from += kAskedStep) {
		add_asked({from, from + kAskedStep}, past_.last_day);
	}
}

void AlertEngine::add_asked(TimeRange range, std::map<Name, std::vector<double>> &values) const {
	for (const AskedCount &count : source_.asked(range)) {
		values[{count.application, count.name}].push_back(static_cast<double>(count.asked) *
														  kMinute / kAskedStep);
	}
}

std::vector<double> AlertEngine::values_of(const AlertRule &rule, const Name &name,
										   TimeRange range) const {
	FigureSearch search;
	search.range = {range.from / kStep * kStep, range.to / kStep * kStep};
	search.application = name.application;
	search.transaction = name.transaction;
	std::vector<double> values;
	for (const FigurePoint &point : source_.curve(search, kStep)) {
		values.push_back(value_of(rule.metric, point.figures, point.figures.count, kStep));
	}
	return values;
}

} // namespace kaq
