#include "export/otlp_traces.h"

#include <protozero/pbf_builder.hpp>

#include <algorithm>

#include "analysis/http_call.h"
#include "util/version.h"

namespace kaq {
namespace {

/* Whose names the attributes have. */
constexpr const char *kSchema = "https://opentelemetry.io/schemas/1.33.0";
constexpr const char *kScope = "kaq";
constexpr int64_t kNanoseconds = 1000000;
constexpr int64_t kLastTime = INT64_MAX / kNanoseconds;
constexpr size_t kLongestText = 64 * 1024;
constexpr size_t kMostEvents = 128;
constexpr size_t kLongestName = 256;

/* Numbers of fields, as the protocol has them. */
enum class RequestTag : protozero::pbf_tag_type { kResourceSpans = 1 };
enum class ResourceSpansTag : protozero::pbf_tag_type {
	kResource = 1,
	kScopeSpans = 2,
	kSchema = 3
};
enum class ResourceTag : protozero::pbf_tag_type { kAttributes = 1 };
enum class ScopeSpansTag : protozero::pbf_tag_type { kScope = 1, kSpans = 2, kSchema = 3 };
enum class ScopeTag : protozero::pbf_tag_type { kName = 1, kVersion = 2 };
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
enum class PairTag : protozero::pbf_tag_type { kKey = 1, kValue = 2 };
enum class ValueTag : protozero::pbf_tag_type { kText = 1, kBool = 2, kNumber = 3 };

enum class Kind : int32_t { kInternal = 1, kServer = 2, kClient = 3 };
constexpr int32_t kStatusError = 2;
constexpr uint32_t kFlagSampled = 1;
constexpr uint32_t kFlagHasIsRemote = 0x100;
constexpr uint32_t kFlagIsRemote = 0x200;

template <typename Builder, typename Tag>
void add_pair(Builder &builder, Tag tag, const char *key, const OtlpValue &value) {
	if (std::holds_alternative<std::monostate>(value)) {
		return;
	}
	protozero::pbf_builder<PairTag> pair(builder, tag);
	pair.add_string(PairTag::kKey, key);
	protozero::pbf_builder<ValueTag> any(pair, PairTag::kValue);
	if (const auto *text = std::get_if<std::string_view>(&value)) {
		std::string_view whole = shortened(*text, kLongestText);
		any.add_string(ValueTag::kText, whole.data(), whole.size());
	} else if (const auto *number = std::get_if<int64_t>(&value)) {
		any.add_int64(ValueTag::kNumber, *number);
	} else {
		any.add_bool(ValueTag::kBool, std::get<bool>(value));
	}
}

uint64_t nanoseconds(int64_t milliseconds) {
	return static_cast<uint64_t>(std::clamp<int64_t>(milliseconds, 0, kLastTime) * kNanoseconds);
}

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
	EventFacts of{failure, ""};
	if (!failure.file.empty()) {
		of.place = "#0 " + std::string(failure.file) + "(" + std::to_string(failure.line) + ")";
	}
	protozero::pbf_builder<EventTag> event(to, SpanTag::kEvents);
	event.add_fixed64(EventTag::kTime,
					  nanoseconds(failure.time > 0 ? failure.time : facts.span.end));
	event.add_string(EventTag::kName, "exception");
	for (const OtlpEventAttribute &each : otlp_event_attributes()) {
		add_pair(event, EventTag::kAttributes, each.key, each.value(of));
	}
}

void add_id(protozero::pbf_builder<SpanTag> &to, SpanTag tag, const OtlpSpanId &id) {
	to.add_bytes(tag, id.data(), id.size());
}

std::string resource_bytes(const Transaction &transaction, const OtlpTraceSettings &settings) {
	std::string bytes;
	protozero::pbf_builder<ResourceTag> resource(bytes);
	ResourceFacts facts{transaction, settings.host};
	for (const OtlpResourceAttribute &each : otlp_resource_attributes()) {
		add_pair(resource, ResourceTag::kAttributes, each.key, each.value(facts));
	}
	return bytes;
}

} // namespace

OtlpTraceWriter::OtlpTraceWriter(const Transaction &transaction, const OtlpTraceSettings &settings)
	: transaction_(transaction), settings_(settings), facts_(transaction, settings.has_literals),
	  trace_id_(trace_id_of(transaction)), ids_(span_ids_of(transaction)) {
}

std::string OtlpTraceWriter::span_bytes(size_t index) const {
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
	to.add_fixed64(SpanTag::kStart, nanoseconds(span.start));
	to.add_fixed64(SpanTag::kEnd, nanoseconds(std::max(span.start, span.end)));
	for (const OtlpAttribute &each : otlp_attributes()) {
		if ((each.spans & facts.span_class) != 0) {
			add_pair(to, SpanTag::kAttributes, each.key, each.value(facts));
		}
	}
	size_t events = std::min(span.failures.size(), kMostEvents);
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

OtlpPart OtlpTraceWriter::write(size_t from, size_t most_spans, size_t most_bytes) const {
	OtlpPart part;
	part.from = from;
	part.to = from;
	std::string scope_spans;
	{
		protozero::pbf_builder<ScopeSpansTag> to(scope_spans);
		{
			protozero::pbf_builder<ScopeTag> scope(to, ScopeSpansTag::kScope);
			scope.add_string(ScopeTag::kName, kScope);
			scope.add_string(ScopeTag::kVersion, kVersion);
		}
		while (part.to < spans() && part.spans() < std::max<size_t>(most_spans, 1)) {
			std::string span = span_bytes(part.to);
			if (part.spans() > 0 && scope_spans.size() + span.size() > most_bytes) {
				break;
			}
			to.add_message(ScopeSpansTag::kSpans, span);
			part.to++;
		}
		to.add_string(ScopeSpansTag::kSchema, kSchema);
	}
	std::string resource_spans;
	protozero::pbf_builder<ResourceSpansTag> of(resource_spans);
	of.add_message(ResourceSpansTag::kResource, resource_bytes(transaction_, settings_));
	of.add_message(ResourceSpansTag::kScopeSpans, scope_spans);
	of.add_string(ResourceSpansTag::kSchema, kSchema);
	protozero::pbf_builder<RequestTag>(part.bytes)
		.add_message(RequestTag::kResourceSpans, resource_spans);
	return part;
}

} // namespace kaq
