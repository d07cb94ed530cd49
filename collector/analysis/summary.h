/* A request in one line: what lists, rollups and live views show of it. Times in milliseconds. */
#pragma once

#include <cstdint>
#include <string>

#include "model/transaction.h"

namespace kaq {

/* A duration that users are satisfied with, unless somebody says otherwise; longer than four times
 * of it is slow. */
constexpr int64_t kSatisfyingDuration = 500;
constexpr int64_t kSlowDuration = 4 * kSatisfyingDuration;

struct Summary {
	std::string id;       /* the root span's; names the request in commands and links */
	std::string trace_id; /* shared by all requests of one trace */
	std::string application;
	std::string name; /* normalised if the handshake normalised it */
	std::string path; /* as it was asked for, or what the script called it */
	std::string method;
	int64_t start = 0;
	int64_t duration = 0;
	int64_t cpu = 0;
	int64_t memory = 0; /* bytes */
	int64_t status = 0;
	int64_t spans = 0;
	int64_t queries = 0;       /* executions of statements */
	int64_t calls = 0;         /* HTTP calls */
	int64_t failures = 0;      /* errors and exceptions */
	int64_t query_time = 0;    /* of database calls; such as overlap count once */
	int64_t external_time = 0; /* of HTTP calls, likewise */
	bool is_web = false;
	bool is_failed = false; /* status 500 and above, or an error that is worse than a warning */
};

/* Texts are cut: what a name or a path has at most, and what everything else has. */
constexpr size_t kLongestSummaryName = 8192;
constexpr size_t kLongestSummaryWord = 256;

Summary summarise(const Transaction &transaction);

} // namespace kaq
