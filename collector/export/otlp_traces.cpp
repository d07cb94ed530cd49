#include "export/otlp_traces.h"

#include <algorithm>

#include "analysis/http_call.h"
#include "export/otlp_message_private.h"

namespace kaq {
namespace {

constexpr size_t kLongestName = 256;

/* Numbers of fields, as the protocol has them. */
enum class SpanTag : protozero::pbf_tag_type {
	kTraceId = 1,
	kSpanId = 2,
	kParentSpanId = 4,
	kName = 5,
	kKind = 6,
	kStart = 7,
	kEnd = 8,
	kAttributes = 9,
	kEvents = 11,
	kDroppedEvents = 12,
	kStatus = 15,
	kFlags = 16,
};
enum class EventTag : protozero::pbf_tag_type { kTime = 1, kName = 2, kAttributes = 3 };
enum class StatusTag : protozero::pbf_tag_type { kMessage = 2, kCode = 3 };

enum class Kind : int32_t { kInternal = 1, kServer = 2, kClient = 3 };
constexpr int32_t kStatusError = 2;
constexpr uint32_t kFlagSampled = 1;
constexpr uint32_t kFlagHasIsRemote = 0x100;
constexpr uint32_t kFlagIsRemote = 0x200;

Kind kind_of(const SpanFacts &facts) {
	if (facts.span_class == kServerSpan) {
		return Kind::kServer;
	}
	bool is_call = facts.span.is_external && (facts.span_class & (kRootSpans | kCodeSpan)) == 0;
	return is_call ? Kind::kClient : Kind::kInternal;
}

/* What many spans share. */
std::string name_of(const SpanFacts &facts) {
	const Transaction &transaction = facts.transaction;
	std::string name;
	if ((facts.span_class & kRootSpans) != 0) {
		std::string_view transaction_name =
			transaction.normalised_name.empty() ? transaction.name : transaction.normalised_name;
		name = facts.method == "_OTHER" ? "HTTP" : facts.method;
		name += name.empty() ? "" : " ";
		name += transaction_name;
	} else if (!facts.summary.empty()) {
		name = facts.summary;
	} else if (facts.span_class == kHttpSpan) {
		name = "HTTP " + host_of(facts.span.host);
	} else {
		name = facts.span.name;
	}
	return std::string(name.empty() ? "(unnamed)" : shortened(name, kLongestName));
}

void add_event(protozero::pbf_builder<SpanTag> &to, const SpanFacts &facts,
			   const Failure &failure) {
	EventFacts of(failure);
	protozero::pbf_builder<EventTag> event(to, SpanTag::kEvents);
	event.add_fixed64(EventTag::kTime, otlp_time(failure.time > 0 ? failure.time : facts.span.end));
	event.add_string(EventTag::kName, "exception");
	for (const OtlpEventAttribute &each : otlp_event_attributes()) {
		add_otlp_pair(event, EventTag::kAttributes, each.key, each.value(of));
	}
}

void add_id(protozero::pbf_builder<SpanTag> &to, SpanTag tag, const OtlpSpanId &id) {
	to.add_bytes(tag, id.data(), id.size());
}

} // namespace

OtlpTraceWriter::OtlpTraceWriter(const Transaction &transaction, const OtlpTraceSettings &settings)
	: OtlpWriter(transaction, settings), facts_(transaction, settings.has_literals),
	  trace_id_(trace_id_of(transaction)), ids_(span_ids_of(transaction)) {
}

std::string OtlpTraceWriter::item(size_t index) const {
	const Span &span = transaction_.spans[index];
	SpanFacts facts = facts_.of(index);
	std::string bytes;
	protozero::pbf_builder<SpanTag> to(bytes);
	to.add_bytes(SpanTag::kTraceId, trace_id_.data(), trace_id_.size());
	add_id(to, SpanTag::kSpanId, ids_[index]);
	std::optional<OtlpSpanId> caller = index == 0 ? valid_span_id(span.parent_id) : std::nullopt;
	if (index > 0) {
		add_id(to, SpanTag::kParentSpanId, ids_[static_cast<size_t>(std::max(span.parent, 0))]);
	} else if (caller) {
		add_id(to, SpanTag::kParentSpanId, *caller);
	}
	to.add_string(SpanTag::kName, name_of(facts));
	to.add_enum(SpanTag::kKind, static_cast<int32_t>(kind_of(facts)));
	to.add_fixed64(SpanTag::kStart, otlp_time(span.start));
	to.add_fixed64(SpanTag::kEnd, otlp_time(std::max(span.start, span.end)));
	for (const OtlpAttribute &each : otlp_attributes()) {
		if ((each.spans & facts.span_class) != 0) {
			add_otlp_pair(to, SpanTag::kAttributes, each.key, each.value(facts));
		}
	}
	size_t events = std::min(span.failures.size(), kMostOtlpEvents);
	for (size_t i = 0; i < events; i++) {
		add_event(to, facts, span.failures[i]);
	}
	if (span.failures.size() > events) {
		to.add_uint32(SpanTag::kDroppedEvents,
					  static_cast<uint32_t>(span.failures.size() - events));
	}
	if (facts.is_failed) {
		protozero::pbf_builder<StatusTag>(to, SpanTag::kStatus)
			.add_enum(StatusTag::kCode, kStatusError);
	}
	to.add_fixed32(SpanTag::kFlags, kFlagSampled | kFlagHasIsRemote | (caller ? kFlagIsRemote : 0));
	return bytes;
}

} // namespace kaq
