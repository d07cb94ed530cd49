/*
 * Watches figures by the rules of the configuration. Each minute every transaction that a rule
 * matches is looked at; when it has been out of its range for the rule's minutes that is said once,
 * and once more when it has been back for as long. A minute without requests says nothing about
 * durations and errors. One thread at a time.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "cli/configuration.h"
#include "store/store.h"

namespace kaq {

/* What is usual: from low to high; with a fixed limit that alone. */
struct UsualRange {
	double low = 0;
	double high = 0;
	bool is_limit = false;
	bool is_known = true;
};

struct Alert {
	std::string webhook;
	std::string text; /* "p95 of shop /cart is 1.4 s since 12:03, usually 180 to 220 ms" */
	std::string application;
	std::string transaction;
	AlertMetric metric = AlertMetric::kP95;
	double value = 0; /* milliseconds, a share from 0 to 1, or requests a minute */
	UsualRange usual;
	int64_t since = 0; /* milliseconds since the Unix epoch */
	bool is_over = false;
};

/* What is known of a transaction that a rule finds out of its range. */
struct AlertState {
	std::string rule; /* see id_of() */
	std::string application;
	std::string transaction;
	int64_t out_since = 0; /* begins of minutes */
	int64_t in_since = 0;  /* where it had been said to be out; 0: it still is */
	int64_t requests = 0;  /* while it is out */
	bool is_said = false;
	UsualRange usual; /* unless it is a limit */
};

/* What an engine has to know to go on where another one has ended. */
struct AlertMemory {
	int64_t last = 0; /* begin of the last minute that was looked at */
	std::vector<AlertState> states;
};

/* The same for the same rule; rules that differ have others. */
std::string id_of(const AlertRule &rule);

/* Where figures come from; all throw StoreError. */
struct FigureSource {
	std::function<std::vector<FigureRow>(const FigureSearch &)> figures;
	std::function<std::vector<FigurePoint>(const FigureSearch &, int64_t step)> curve;
	std::function<std::vector<AskedCount>(const TimeRange &)> asked;
};

FigureSource figure_source(Store &store);

class AlertEngine {
public:
	explicit AlertEngine(FigureSource source) : source_(std::move(source)) {
	}

	/* What was noticed under rules that stay the same is not forgotten. */
	void use(const std::vector<AlertRule> &rules);
	/* What is to be said about the last whole minute before `now`, in milliseconds since the Unix
	 * epoch; nothing if that was looked at already. */
	std::vector<Alert> look(int64_t now);

	AlertMemory memory() const;
	/* REQUIRES: the rules are known, and nothing was looked at. Of other rules nothing is taken. */
	void recall(const AlertMemory &memory);

private:
	struct Value {
		double value = 0;
		int64_t requests = 0;
	};
	struct Name {
		std::string application;
		std::string transaction;

		bool operator<(const Name &other) const {
			return std::tie(application, transaction) <
				   std::tie(other.application, other.transaction);
		}
	};
	struct KnownRange {
		UsualRange range;
		int64_t time = 0; /* at which it was looked up */
	};
	struct Minute {
		int64_t begin = 0;
		std::map<Name, Figures> figures;
		std::map<Name, int64_t> asked;
	};
	/* Requests a minute as they were asked for, which is known of all of them. */
	struct AskedPast {
		int64_t time = 0; /* of looking it up */
		std::map<Name, std::vector<double>> same_hours;
		std::map<Name, std::vector<double>> last_day;
	};
	using Key = std::pair<size_t, Name>; /* of the rule, by its place */

	void recall(const AlertState &state);
	void forget_before(int64_t minute);
	Minute minute_at(int64_t begin) const;
	void look_at(size_t rule, const Minute &minute, std::vector<Alert> &alerts);
	void judge(const Key &key, const Value &value, const Minute &minute,
			   std::vector<Alert> &alerts);
	void note_out(const Key &key, const Value &value, int64_t minute, const UsualRange &usual,
				  std::vector<Alert> &alerts);
	void note_in(const Key &key, int64_t minute, const UsualRange &usual,
				 std::vector<Alert> &alerts);
	UsualRange usual_of(const Key &key, int64_t minute);
	UsualRange usual_from(const AlertRule &rule, const Name &name, int64_t minute);
	std::vector<double> values_of(const AlertRule &rule, const Name &name, TimeRange range) const;
	void ask_past(int64_t minute);
	void add_asked(TimeRange range, std::map<Name, std::vector<double>> &values) const;
	Alert alert_of(const Key &key, const UsualRange &usual, TimeRange period) const;

	const FigureSource source_;
	std::vector<AlertRule> rules_;
	std::map<Key, AlertState> states_; /* of what is not in its range */
	std::map<Key, KnownRange> known_;  /* of rules without a fixed limit */
	AskedPast past_;
	size_t looked_up_ = 0; /* ranges, in this minute */
	int64_t last_ = 0;
	bool has_looked_ = false; /* at that minute; else another engine has */
};

/* As it is posted: an object with the members text, application, transaction, metric, value,
 * usual, since_ms, recovered and link. */
std::string to_json(const Alert &alert, const std::string &base_url);

} // namespace kaq
