#include "cli/metrics.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <atomic>
#include <limits>

namespace kaq {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

constexpr double kMilliseconds = 1e-3;
constexpr double kMicroseconds = 1e-6;

class MetricsWriter {
public:
	/* What follows is of this one. */
	void family(const char *name, MetricType type, const char *help) {
		MetricFamily family;
		family.name = name;
		family.type = type;
		family.help = help;
		families_.push_back(std::move(family));
	}

	void add(Labels labels, double value) {
		ClientMetric metric;
		metric.label = std::move(labels);
		if (families_.back().type == MetricType::Counter) {
			metric.counter.value = value;
		} else {
			metric.gauge.value = value;
		}
		families_.back().metric.push_back(std::move(metric));
	}

	void add(Labels labels, const std::atomic<uint64_t> &counter) {
		add(std::move(labels), static_cast<double>(counter.load(std::memory_order_relaxed)));
	}

	void add(Labels labels, const ClientMetric::Histogram &histogram) {
		ClientMetric metric;
		metric.label = std::move(labels);
		metric.histogram = histogram;
		families_.back().metric.push_back(std::move(metric));
	}

	template <typename Value> void counter(const char *name, const char *help, const Value &value) {
		family(name, MetricType::Counter, help);
		add({}, value);
	}

	void gauge(const char *name, const char *help, double value) {
		family(name, MetricType::Gauge, help);
		add({}, value);
	}

	std::string text() const {
		return prometheus::TextSerializer().Serialize(families_);
	}

private:
	std::vector<MetricFamily> families_;
};

void add_ports(MetricsWriter &to, const MetricsSources &from) {
	to.family("kaq_connections", MetricType::Gauge, "Connections that are open, by port.");
	to.add({{"port", "handshake"}}, static_cast<double>(from.handshakes.open_connections()));
	to.add({{"port", "data"}}, static_cast<double>(from.payloads.open_connections()));
	to.add({{"port", "http"}}, static_cast<double>(from.http.open_connections()));
	const HandshakeCounts &handshakes = from.handshakes.counts();
	to.counter("kaq_handshakes_answered_total", "Handshakes that got their answer.",
			   handshakes.answered);
	to.family("kaq_handshakes_refused_total", MetricType::Counter,
			  "Connections for handshakes that got none, by reason.");
	to.add({{"reason", "too-many"}}, handshakes.refused);
	to.add({{"reason", "network"}}, handshakes.foreign);
	to.add({{"reason", "late"}}, handshakes.late);
	const DataCounts &payloads = from.payloads.counts();
	to.counter("kaq_payloads_received_total", "Connections whose payload was received whole.",
			   payloads.received);
	to.counter("kaq_payload_bytes_total", "Bytes of these.", payloads.bytes);
	to.family("kaq_payloads_dropped_total", MetricType::Counter,
			  "Connections whose payload was refused or dropped, by reason.");
	to.add({{"reason", "too-many"}}, payloads.refused);
	to.add({{"reason", "network"}}, payloads.foreign);
	to.add({{"reason", "late"}}, payloads.late);
	to.add({{"reason", "too-long"}}, payloads.too_long);
	to.add({{"reason", "no-memory"}}, payloads.no_memory);
	to.add({{"reason", "queue-full"}}, payloads.not_taken);
	const HttpCounts &http = from.http.counts();
	to.family("kaq_http_refused_total", MetricType::Counter,
			  "HTTP connections and requests that were refused, by reason.");
	to.add({{"reason", "too-many"}}, http.crowded_out);
	to.add({{"reason", "too-long"}}, http.too_long);
	to.add({{"reason", "malformed"}}, http.malformed);
	to.add({{"reason", "late"}}, http.late);
}

void add_reading(MetricsWriter &to, const MetricsSources &from) {
	to.counter("kaq_transactions_total", "Transactions that were read from payloads.",
			   from.read.transactions);
	to.family("kaq_payloads_unreadable_total", MetricType::Counter,
			  "Lines of payloads that could not be read, by reason.");
	for (size_t i = 0; i < kPayloadErrors; i++) {
		to.add({{"reason", std::string(payload_error_name(static_cast<PayloadError>(i)))}},
			   from.read.errors[i]);
	}
	to.add({{"reason", "incomplete"}}, from.read.incomplete);
	to.add({{"reason", "failed"}}, from.read.failed);
	to.family("kaq_notices_total", MetricType::Counter,
			  "What the extension said in the place of a transaction, by kind.");
	for (size_t i = 0; i < kNotices; i++) {
		to.add({{"kind", std::string(notice_name(static_cast<Notice>(i)))}}, from.read.notices[i]);
	}
	to.gauge("kaq_payload_memory_ratio", "How full the memory for payloads is, from 0 to 1.",
			 from.memory.fill());
	to.gauge("kaq_payload_queue_ratio", "How full the queue of unread payloads is, from 0 to 1.",
			 from.pipeline.fill());
	to.gauge("kaq_load_share_ratio",
			 "Share of the requests to be recorded that the load allows, from 0 to 1.",
			 static_cast<double>(from.overload.share()) / kWholeShare);
	to.counter("kaq_load_reductions_total", "How often that share was lowered.",
			   static_cast<double>(from.overload.times_lowered()));
}

void add_probe(MetricsWriter &to, const HandshakeLatency &latency) {
	to.family("kaq_handshake_latency_seconds", MetricType::Gauge,
			  "What a handshake takes, measured every 5 seconds, over the last half hour.");
	to.add({{"quantile", "0.5"}}, static_cast<double>(latency.p50.count()) * kMicroseconds);
	to.add({{"quantile", "0.99"}}, static_cast<double>(latency.p99.count()) * kMicroseconds);
	to.counter("kaq_handshake_probes_total", "Handshakes that the collector made to measure that.",
			   static_cast<double>(latency.measured));
	to.counter("kaq_handshake_probes_failed_total", "Those of them that got no answer in time.",
			   static_cast<double>(latency.failed));
}

void add_store(MetricsWriter &to, const StoreStatus &store) {
	auto number = [](int64_t value) { return static_cast<double>(value); };
	to.family("kaq_store_bytes", MetricType::Gauge, "Room that the store takes, by what is kept.");
	to.add({{"kept", "requests"}}, number(store.bytes));
	to.add({{"kept", "figures"}}, number(store.figure_bytes));
	to.family("kaq_store_limit_bytes", MetricType::Gauge, "Room that it may take.");
	to.add({{"kept", "requests"}}, number(store.most_bytes));
	to.add({{"kept", "figures"}}, number(store.most_figure_bytes));
	to.gauge("kaq_store_files", "Files of requests.", static_cast<double>(store.parts.size()));
	to.gauge("kaq_store_writable", "1 if the last attempt to write succeeded, else 0.",
			 store.is_writing ? 1 : 0);
	to.counter("kaq_store_requests_total", "Requests that were given to the store.",
			   number(store.requests_put));
	to.counter("kaq_store_requests_lost_total", "Those of them that could not be written.",
			   number(store.requests_lost));
	to.family("kaq_store_documents_total", MetricType::Counter,
			  "Documents of requests, by whether they were kept.");
	to.add({{"kept", "yes"}}, number(store.documents_kept));
	to.add({{"kept", "no"}}, number(store.documents_left_out));
	to.counter("kaq_store_names_over_cap_total",
			   "Requests whose transaction had a name more than are told apart.",
			   number(store.other_names));
	to.gauge("kaq_store_damages", "Parts of the store that were found damaged.",
			 static_cast<double>(store.damages.size()));
}

Labels labels_of(const DestinationStatus &status) {
	return {{"destination", status.name}, {"signal", std::string(signal_name(status.signal))}};
}

void add_destinations(MetricsWriter &to, const std::vector<DestinationStatus> &all) {
	struct Family {
		const char *name;
		const char *help;
		uint64_t DestinationStatus::*value;
	};
	for (const Family &family :
		 {Family{"kaq_export_requests_total", "Stored requests that were sent to a destination.",
				 &DestinationStatus::requests},
		  {"kaq_export_items_total", "Spans, log records and points of metrics that it took.",
		   &DestinationStatus::items},
		  {"kaq_export_items_rejected_total", "Those that it left out of what it took.",
		   &DestinationStatus::rejected},
		  {"kaq_export_items_refused_total", "Those that it did not take.",
		   &DestinationStatus::refused},
		  {"kaq_export_retries_total", "Attempts after which it is tried again.",
		   &DestinationStatus::retries},
		  {"kaq_export_gaps_total",
		   "How often what was to be sent had been removed from the store.",
		   &DestinationStatus::gaps}}) {
		to.family(family.name, MetricType::Counter, family.help);
		for (const DestinationStatus &each : all) {
			to.add(labels_of(each), static_cast<double>(each.*family.value));
		}
	}
	to.family("kaq_export_lag_seconds", MetricType::Gauge,
			  "How long ago the first request ended that is still to be sent.");
	for (const DestinationStatus &each : all) {
		to.add(labels_of(each), static_cast<double>(each.lag) * kMilliseconds);
	}
}

void add_asked(MetricsWriter &to, const std::map<std::string, AskedSeries> &asked) {
	struct Family {
		const char *name;
		const char *help;
		uint64_t AskedSeries::*value;
	};
	for (const Family &family :
		 {Family{"kaq_requests_asked_total", "Requests that asked whether to be recorded: all.",
				 &AskedSeries::asked},
		  {"kaq_requests_monitored_total", "Those of them that were to be.",
		   &AskedSeries::monitored},
		  {"kaq_requests_shed_total",
		   "Those of them that were not, for the collector's load alone.", &AskedSeries::shed}}) {
		to.family(family.name, MetricType::Counter, family.help);
		for (const auto &[application, series] : asked) {
			to.add({{"application", application}}, static_cast<double>(series.*family.value));
		}
	}
}

Labels labels_of(const RequestMetrics::Name &name) {
	return {{"application", name.first}, {"transaction", name.second}};
}

ClientMetric::Histogram histogram_of(const RequestSeries &series) {
	ClientMetric::Histogram histogram;
	histogram.sample_count = series.requests;
	histogram.sample_sum = static_cast<double>(series.milliseconds) * kMilliseconds;
	uint64_t sum = 0;
	for (size_t i = 0; i < kDurationBuckets.size(); i++) {
		sum += series.buckets[i];
		histogram.bucket.push_back({sum, static_cast<double>(kDurationBuckets[i]) / 1000});
	}
	histogram.bucket.push_back({series.requests, std::numeric_limits<double>::infinity()});
	return histogram;
}

void add_requests(MetricsWriter &to, const std::map<RequestMetrics::Name, RequestSeries> &all) {
	to.family("kaq_requests_total", MetricType::Counter, "Requests that were recorded.");
	for (const auto &[name, series] : all) {
		to.add(labels_of(name), static_cast<double>(series.requests));
	}
	to.family("kaq_request_errors_total", MetricType::Counter, "Those of them that failed.");
	for (const auto &[name, series] : all) {
		to.add(labels_of(name), static_cast<double>(series.failed));
	}
	to.family("kaq_request_duration_seconds", MetricType::Histogram, "How long they took.");
	for (const auto &[name, series] : all) {
		to.add(labels_of(name), histogram_of(series));
	}
}

} // namespace

std::string metrics_text(const MetricsSources &sources) {
	MetricsWriter writer;
	writer.gauge("kaq_start_time_seconds", "When the collector was started, since the Unix epoch.",
				 static_cast<double>(sources.started) * kMilliseconds);
	add_ports(writer, sources);
	add_reading(writer, sources);
	add_probe(writer, sources.probe.latency());
	add_store(writer, sources.store.status());
	add_destinations(writer, sources.destinations.statuses());
	add_asked(writer, sources.requests.asked());
	add_requests(writer, sources.requests.requests());
	return writer.text();
}

void MetricsGate::open(const MetricsSources &sources) {
	std::lock_guard lock(mutex_);
	sources_.emplace(sources);
}

void MetricsGate::close() {
	std::lock_guard lock(mutex_);
	sources_.reset();
}

std::optional<std::string> MetricsGate::text() {
	std::lock_guard lock(mutex_);
	return sources_ ? std::optional(metrics_text(*sources_)) : std::nullopt;
}

} // namespace kaq
