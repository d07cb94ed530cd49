/*
 * How long requests took, as OTLP has it: the protobuf message ExportMetricsServiceRequest, with a
 * histogram for each series, summed up since the collector's start. Any thread.
 */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "export/otlp_writer.h"
#include "ingest/request_metrics.h"

namespace kaq {

class OtlpMetricWriter {
public:
	using Series = std::map<RequestKey, RequestSeries>;

	/* From `since` to `now`, milliseconds since the Unix epoch. `host` as of OtlpTraceSettings. */
	OtlpMetricWriter(const Series &series, int64_t since, int64_t now, std::string host);

	size_t items() const {
		return points_.size();
	}
	/* From that point on, and so many at most. REQUIRES: there is one. */
	OtlpPart write(size_t from, size_t most_items) const;

private:
	using Point = std::pair<RequestKey, RequestSeries>;

	std::string point_bytes(const Point &point) const;
	std::string metric_bytes(size_t from, size_t to) const;
	/* Behind the last point from there on that has the same. */
	size_t end_of_metric(size_t from, size_t to) const;

	std::vector<Point> points_;
	const int64_t since_;
	const int64_t now_;
	const std::string host_;
};

} // namespace kaq
