/*
 * What the running collector tells programs that watch it, in the text format of Prometheus;
 * docs/figures.md has a table of it.
 */
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "export/destinations.h"
#include "http/http_server.h"
#include "ingest/overload_control.h"
#include "ingest/pipeline.h"
#include "ingest/request_metrics.h"
#include "net/data_server.h"
#include "net/handshake_probe.h"
#include "net/handshake_server.h"
#include "store/store.h"
#include "util/memory_budget.h"

namespace kaq {

struct MetricsSources {
	const HandshakeServer &handshakes;
	const DataServer &payloads;
	const HttpServer &http;
	const PipelineCounts &read;
	const HandshakeProbe &probe;
	const MemoryBudget &memory;
	const Pipeline &pipeline;
	const OverloadControl &overload;
	const RequestMetrics &requests;
	Store &store;
	Destinations &destinations;
	int64_t started = 0; /* milliseconds since the Unix epoch */
};

/* Throws StoreError. */
std::string metrics_text(const MetricsSources &sources);

/* Lets others ask as long as the sources are there. */
class MetricsGate {
public:
	void open(const MetricsSources &sources);
	/* Returns when nobody uses them any more. */
	void close();
	/* Nothing while it is closed. Any thread. Throws StoreError. */
	std::optional<std::string> text();

private:
	std::mutex mutex_;
	std::optional<MetricsSources> sources_;
};

} // namespace kaq
