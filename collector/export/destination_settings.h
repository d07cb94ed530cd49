/* Where stored requests are sent to, which of them, and how far that has come. */
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "export/otlp_sender.h"
#include "export/otlp_writer.h"
#include "store/filter.h"

namespace kaq {

struct DestinationSettings {
	std::string name; /* letters, digits, '-' and '_' */
	std::vector<OtlpSignal> signals = {OtlpSignal::kTraces};
	OtlpEndpoint endpoint;
	OtlpTraceSettings traces;

	/* Which requests; all of it has to hold. */
	std::string application = "*"; /* globs */
	std::string transaction = "*";
	std::chrono::milliseconds slower{0}; /* that took at least that long */
	bool is_failed = false;              /* only those that failed */
	double share = 1;                    /* of the traces */
	TimeRange range;                     /* of their starts */

	size_t batch_items = 5000;
	size_t batch_bytes = 4 * 1024 * 1024;
	int64_t spans_per_second = 50000;
	std::chrono::milliseconds poll_time{1000}; /* how soon new requests are looked for */
	std::chrono::milliseconds first_pause{1000};
	std::chrono::milliseconds longest_pause{60000};
	std::chrono::milliseconds patience{0};         /* how long it is tried in vain; 0: for ever */
	std::chrono::milliseconds metrics_time{60000}; /* how often metrics are sent */
};

bool operator==(const DestinationSettings &one, const DestinationSettings &other);

struct DestinationStatus {
	std::string name;
	OtlpSignal signal = OtlpSignal::kTraces;
	std::string url; /* without what lets one post there */
	/* Since the start. Items are spans, log records or points of metrics. */
	uint64_t requests = 0; /* that were sent, and taken or refused */
	uint64_t items = 0;    /* that were taken */
	uint64_t rejected = 0; /* that it took the rest without */
	uint64_t refused = 0;  /* that it did not want */
	uint64_t batches = 0;  /* that were taken */
	uint64_t retries = 0;
	uint64_t gaps = 0;       /* how often what was to be sent had been removed from the store */
	uint64_t unreadable = 0; /* requests */
	int64_t waiting = 0;     /* requests in the store that were not looked at yet */
	int64_t lag = 0;         /* milliseconds since the end of the first request that waits */
	int64_t last_taken = 0;  /* time of the last answer that took something; 0: none yet */
	int64_t next_try = 0;    /* where it waits for one */
	std::string trouble;     /* why the last batch was not taken, in words; empty: it was */
};

/* A web address without the user's part, and without what is behind the path. */
std::string without_credentials(const std::string &url);

} // namespace kaq
