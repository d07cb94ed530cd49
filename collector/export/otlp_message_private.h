/*
 * What the messages of OTLP have in common: attributes, times, and the request around what is
 * sent, whose numbers are the same for traces, logs and metrics. No state; any thread.
 */
#pragma once

#include <protozero/pbf_builder.hpp>

#include <algorithm>
#include <cstdint>
#include <string>

#include "analysis/statements.h"
#include "export/otlp_attributes.h"

namespace kaq {

constexpr size_t kLongestOtlpText = 64 * 1024;

enum class OtlpPairTag : protozero::pbf_tag_type { kKey = 1, kValue = 2 };
enum class OtlpValueTag : protozero::pbf_tag_type { kText = 1, kBool = 2, kNumber = 3 };

/* An AnyValue. */
template <typename Builder, typename Tag>
void add_otlp_value(Builder &to, Tag tag, const OtlpValue &value) {
	protozero::pbf_builder<OtlpValueTag> any(to, tag);
	if (const auto *text = std::get_if<std::string_view>(&value)) {
		std::string_view whole = shortened(*text, kLongestOtlpText);
		any.add_string(OtlpValueTag::kText, whole.data(), whole.size());
	} else if (const auto *number = std::get_if<int64_t>(&value)) {
		any.add_int64(OtlpValueTag::kNumber, *number);
	} else {
		any.add_bool(OtlpValueTag::kBool, std::get<bool>(value));
	}
}

/* A KeyValue, if there is a value. */
template <typename Builder, typename Tag>
void add_otlp_pair(Builder &to, Tag tag, const char *key, const OtlpValue &value) {
	if (std::holds_alternative<std::monostate>(value)) {
		return;
	}
	protozero::pbf_builder<OtlpPairTag> pair(to, tag);
	pair.add_string(OtlpPairTag::kKey, key);
	add_otlp_value(pair, OtlpPairTag::kValue, value);
}

/* Nanoseconds since the Unix epoch of what is known in milliseconds. */
inline uint64_t otlp_time(int64_t milliseconds) {
	constexpr int64_t kNanoseconds = 1000000;
	return static_cast<uint64_t>(std::clamp<int64_t>(milliseconds, 0, INT64_MAX / kNanoseconds) *
								 kNanoseconds);
}

/* A Resource. */
std::string otlp_resource(const ResourceFacts &facts);

/* The request with what comes from one resource. */
class OtlpEnvelope {
public:
	OtlpEnvelope();

	/* A span, a log record or a metric. */
	void add(const std::string &item);
	/* Of all items so far. */
	size_t bytes() const {
		return scope_.size();
	}
	/* Nothing is added any more. */
	std::string around(const std::string &resource);

private:
	std::string scope_;
};

} // namespace kaq
