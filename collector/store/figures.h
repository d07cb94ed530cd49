/*
 * Figures of many requests, kept by the minute and by the hour long after the requests themselves:
 * how many, how long, how often failed. Times are milliseconds, memory is bytes.
 */
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "analysis/summary.h"
#include "util/histogram.h"

namespace kaq {

/* What a row of figures is about. */
enum class FigureKind {
	kTransaction = 0,
	kStatement = 1,
	kHost = 2,
	kFailure = 3,
	kApplication = 4, /* the sum of its transactions */
	kFinding = 5,
};
constexpr size_t kFigureKinds = 6;

/*
 * Of what the figures are. `text` and `details` depend on the kind:
 *   transaction: none
 *   statement:   the statement; component, server, database, caller
 *   host:        the host
 *   failure:     the group's key; type, place, message, level
 *   application: none, and no transaction either
 *   finding:     its kind, of those that were put first; times are what there is to gain
 */
struct FigureKey {
	FigureKind kind = FigureKind::kTransaction;
	std::string application;
	std::string transaction;
	std::string text;
	std::array<std::string, 4> details;

	/* The same for the same key, on every machine and in every run. */
	int64_t hash() const;
};

struct Figures {
	int64_t requests = 0; /* in which it happened */
	int64_t count = 0;    /* of requests, executions, calls, failures */
	int64_t failed = 0;   /* of these; of failures those that ended the request */
	int64_t total = 0;    /* of all durations */
	int64_t longest = 0;
	int64_t cpu = 0;
	int64_t memory = 0; /* the largest */
	int64_t queries = 0;
	int64_t query_time = 0;
	int64_t calls = 0;
	int64_t external_time = 0;
	int64_t first = 0; /* start of the first and the last request, since the Unix epoch */
	int64_t last = 0;
	Histogram durations;
	std::string example; /* the request with the longest one */

	void add(const Figures &other);
};

struct FigureRow {
	FigureKey key;
	Figures figures;
};

/* One step of a curve. */
struct FigurePoint {
	int64_t time = 0; /* its begin */
	Figures figures;
};

/* One step of one key's curve. */
struct FigureStep {
	FigureKey key;
	int64_t time = 0; /* its begin */
	Figures figures;
};

/* Of one request. `time` is when it counts, its start unless that cannot be. */
Figures figures_of(const Summary &summary, int64_t time);

} // namespace kaq
