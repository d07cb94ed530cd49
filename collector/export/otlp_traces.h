/* The spans of a request as OTLP has them: the protobuf message ExportTraceServiceRequest. */
#pragma once

#include <string>
#include <vector>

#include "export/otlp_facts.h"
#include "export/otlp_writer.h"

namespace kaq {

class OtlpTraceWriter : public OtlpWriter {
public:
	/* REQUIRES: at least one span; what is passed outlives it. */
	OtlpTraceWriter(const Transaction &transaction, const OtlpTraceSettings &settings);

	size_t items() const override {
		return ids_.size();
	}

private:
	std::string item(size_t index) const override;

	const OtlpFacts facts_;
	const OtlpTraceId trace_id_;
	const std::vector<OtlpSpanId> ids_;
};

} // namespace kaq
