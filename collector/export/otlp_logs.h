/*
 * The errors and exceptions of a request as log records, each with the span in which it happened:
 * the protobuf message ExportLogsServiceRequest.
 */
#pragma once

#include <string>
#include <vector>

#include "export/otlp_ids.h"
#include "export/otlp_writer.h"

namespace kaq {

class OtlpLogWriter : public OtlpWriter {
public:
	/* REQUIRES: at least one span; what is passed outlives it. */
	OtlpLogWriter(const Transaction &transaction, const OtlpTraceSettings &settings);

	/* May be none. */
	size_t items() const override {
		return failures_.size();
	}

private:
	struct Place {
		size_t span;
		const Failure *failure;
	};

	std::string item(size_t index) const override;

	const OtlpTraceId trace_id_;
	const std::vector<OtlpSpanId> ids_;
	std::vector<Place> failures_;
};

} // namespace kaq
