/*
 * Identifiers of traces and spans as OTLP has them: 16 and 8 bytes, not all of them zero. What a
 * peer sent need not be one; then a hash of it takes its place, the same wherever the same text
 * came from. No state; any thread.
 */
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "model/transaction.h"

namespace kaq {

using OtlpTraceId = std::array<char, 16>;
using OtlpSpanId = std::array<char, 8>;

/* Nothing if the text is no such identifier: 32 or 16 hex digits, not all zero. */
std::optional<OtlpTraceId> valid_trace_id(std::string_view text);
std::optional<OtlpSpanId> valid_span_id(std::string_view text);

/* Always one. */
OtlpTraceId trace_id_of(const Transaction &transaction);

/* Per span one of its own. Of spans with the same identifier the first one keeps it. */
std::vector<OtlpSpanId> span_ids_of(const Transaction &transaction);

} // namespace kaq
