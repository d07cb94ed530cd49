#include "export/otlp_metrics.h"

#include "export/otlp_message_private.h"

namespace kaq {
namespace {

constexpr const char *kRequestMetric = "http.server.request.duration";
constexpr const char *kScriptMetric = "kaq.script.duration";
constexpr double kSeconds = 0.001;

/* Numbers of fields, as the protocol has them. */
enum class MetricTag : protozero::pbf_tag_type {
	kName = 1,
	kDescription = 2,
	kUnit = 3,
	kHistogram = 9
};
enum class HistogramTag : protozero::pbf_tag_type { kPoints = 1, kTemporality = 2 };
enum class PointTag : protozero::pbf_tag_type {
	kStart = 2,
	kTime = 3,
	kCount = 4,
	kSum = 5,
	kBucketCounts = 6,
	kBounds = 7,
	kAttributes = 9,
};
constexpr int32_t kCumulative = 2;

} // namespace

OtlpMetricWriter::OtlpMetricWriter(const Series &series, int64_t since, int64_t now,
								   std::string host)
	: points_(series.begin(), series.end()), since_(since), now_(now), host_(std::move(host)) {
}

std::string OtlpMetricWriter::point_bytes(const Point &point) const {
	const auto &[key, series] = point;
	std::string bytes;
	protozero::pbf_builder<PointTag> to(bytes);
	for (const OtlpPointAttribute &each : otlp_point_attributes()) {
		MetricFacts facts(key);
		add_otlp_pair(to, PointTag::kAttributes, each.key, each.value(facts));
	}
	to.add_fixed64(PointTag::kStart, otlp_time(since_));
	to.add_fixed64(PointTag::kTime, otlp_time(now_));
	to.add_fixed64(PointTag::kCount, series.requests);
	to.add_double(PointTag::kSum, static_cast<double>(series.milliseconds) * kSeconds);
	std::vector<uint64_t> counts(series.buckets.begin(), series.buckets.end());
	uint64_t longer = series.requests;
	std::vector<double> bounds;
	for (size_t i = 0; i < kDurationBuckets.size(); i++) {
		longer -= counts[i];
		bounds.push_back(static_cast<double>(kDurationBuckets[i]) / 1000);
	}
	counts.push_back(longer);
	to.add_packed_fixed64(PointTag::kBucketCounts, counts.begin(), counts.end());
	to.add_packed_double(PointTag::kBounds, bounds.begin(), bounds.end());
	return bytes;
}

size_t OtlpMetricWriter::end_of_metric(size_t from, size_t to) const {
	size_t end = from;
	while (end < to && points_[end].first.application == points_[from].first.application &&
		   points_[end].first.is_web == points_[from].first.is_web) {
		end++;
	}
	return end;
}

std::string OtlpMetricWriter::metric_bytes(size_t from, size_t to) const {
	bool is_web = points_[from].first.is_web;
	std::string bytes;
	protozero::pbf_builder<MetricTag> metric(bytes);
	metric.add_string(MetricTag::kName, is_web ? kRequestMetric : kScriptMetric);
	metric.add_string(MetricTag::kDescription,
					  is_web ? "Duration of HTTP server requests." : "Duration of scripts.");
	metric.add_string(MetricTag::kUnit, "s");
	protozero::pbf_builder<HistogramTag> histogram(metric, MetricTag::kHistogram);
	for (size_t i = from; i < to; i++) {
		histogram.add_message(HistogramTag::kPoints, point_bytes(points_[i]));
	}
	histogram.add_enum(HistogramTag::kTemporality, kCumulative);
	return bytes;
}

OtlpPart OtlpMetricWriter::write(size_t from, size_t most_items) const {
	OtlpPart part;
	part.from = from;
	part.to = from + std::min(std::max<size_t>(most_items, 1), items() - from);
	for (size_t next = from; next < part.to;) {
		size_t end = end_of_metric(next, part.to);
		Transaction of;
		of.application = points_[next].first.application;
		OtlpEnvelope envelope;
		envelope.add(metric_bytes(next, end));
		part.bytes += envelope.around(otlp_resource({of, host_}));
		next = end;
	}
	return part;
}

} // namespace kaq
