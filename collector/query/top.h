/*
 * Transactions with the figures of a range of time. How many requests there were is what their
 * handshakes told, since that is exact whatever share of them is recorded; all else is what those
 * tell that were recorded. No state; any thread.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/store.h"

namespace kaq {

struct TopRow {
	std::string application;
	std::string transaction;
	int64_t requests = 0;
	/* `requests` was counted; else it is an estimate: several transactions share a path, or the
	 * transaction has another name than its path, and its share of these is that of the recorded.
	 */
	bool is_exact = false;
	/* From 0 to 1, of the requests that were to be recorded; nothing if no handshake told. */
	std::optional<double> monitored_share;
	Figures figures; /* of the recorded; empty where none is */
	double time = 0; /* of all requests together, milliseconds */
};

/* A row for each transaction that was recorded, and one for each path of which nothing was. */
std::vector<TopRow> top_rows(std::vector<FigureRow> figures, const std::vector<AskedCount> &asked);

/* All rows as one, without names. */
TopRow sum_of(const std::vector<TopRow> &rows);

/* From 0 to 1: those within the threshold count as 1, those within four times of it as a half, the
 * others as 0. REQUIRES: the histogram is not empty. */
double apdex_of(const Histogram &durations, int64_t threshold);

} // namespace kaq
