/*
 * Requests as OTLP has them: the protobuf message ExportTraceServiceRequest. Such messages can be
 * put one behind the other, and are one then. Any thread; each writer has one at a time.
 *
 * Times are the document's milliseconds: the digits of nanoseconds behind them are zeros.
 */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "export/otlp_facts.h"
#include "model/transaction.h"

namespace kaq {

struct OtlpTraceSettings {
	bool has_literals = false; /* of statements, where the document has them */
	std::string host;          /* the machine that all requests come from; empty: it is not known */
};

/* Some spans of a request. */
struct OtlpPart {
	size_t from = 0;
	size_t to = 0; /* behind the last one */
	std::string bytes;

	size_t spans() const {
		return to - from;
	}
};

class OtlpTraceWriter {
public:
	/* REQUIRES: at least one span; what is passed outlives it. */
	OtlpTraceWriter(const Transaction &transaction, const OtlpTraceSettings &settings);

	/* From that span on as many as are in these bounds, and one at least. */
	OtlpPart write(size_t from, size_t most_spans, size_t most_bytes) const;
	size_t spans() const {
		return ids_.size();
	}

private:
	std::string span_bytes(size_t index) const;

	const Transaction &transaction_;
	const OtlpTraceSettings &settings_;
	const OtlpFacts facts_;
	const OtlpTraceId trace_id_;
	const std::vector<OtlpSpanId> ids_;
};

} // namespace kaq
