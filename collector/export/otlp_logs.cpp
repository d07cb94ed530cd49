#include "export/otlp_logs.h"

#include "export/otlp_message_private.h"

namespace kaq {
namespace {

/* Numbers of fields, as the protocol has them. */
enum class RecordTag : protozero::pbf_tag_type {
	kTime = 1,
	kSeverity = 2,
	kSeverityText = 3,
	kBody = 5,
	kAttributes = 6,
	kFlags = 8,
	kTraceId = 9,
	kSpanId = 10,
	kObservedTime = 11,
};

/* As the protocol numbers them. */
enum class Severity : int32_t { kInfo = 9, kWarning = 13, kError = 17 };
constexpr uint32_t kFlagSampled = 1;

Severity severity_of(const Failure &failure) {
	if (failure.level == "Notice") {
		return Severity::kInfo;
	}
	return failure.level == "Warning" ? Severity::kWarning : Severity::kError;
}

} // namespace

OtlpLogWriter::OtlpLogWriter(const Transaction &transaction, const OtlpTraceSettings &settings)
	: OtlpWriter(transaction, settings), trace_id_(trace_id_of(transaction)),
	  ids_(span_ids_of(transaction)) {
	for (size_t i = 0; i < transaction.spans.size(); i++) {
		const std::vector<Failure> &failures = transaction.spans[i].failures;
		for (size_t k = 0; k < failures.size() && k < kMostOtlpEvents; k++) {
			failures_.push_back({i, &failures[k]});
		}
	}
}

std::string OtlpLogWriter::item(size_t index) const {
	const Failure &failure = *failures_[index].failure;
	const Span &span = transaction_.spans[failures_[index].span];
	const OtlpSpanId &id = ids_[failures_[index].span];
	EventFacts facts(failure);
	std::string bytes;
	protozero::pbf_builder<RecordTag> record(bytes);
	uint64_t time = otlp_time(failure.time > 0 ? failure.time : span.end);
	record.add_fixed64(RecordTag::kTime, time);
	record.add_fixed64(RecordTag::kObservedTime, time);
	record.add_enum(RecordTag::kSeverity, static_cast<int32_t>(severity_of(failure)));
	record.add_string(RecordTag::kSeverityText, failure.level.data(), failure.level.size());
	add_otlp_value(record, RecordTag::kBody, OtlpValue(failure.message));
	for (const OtlpEventAttribute &each : otlp_event_attributes()) {
		add_otlp_pair(record, RecordTag::kAttributes, each.key, each.value(facts));
	}
	for (const OtlpEventAttribute &each : otlp_log_attributes()) {
		add_otlp_pair(record, RecordTag::kAttributes, each.key, each.value(facts));
	}
	record.add_fixed32(RecordTag::kFlags, kFlagSampled);
	record.add_bytes(RecordTag::kTraceId, trace_id_.data(), trace_id_.size());
	record.add_bytes(RecordTag::kSpanId, id.data(), id.size());
	return bytes;
}

} // namespace kaq
