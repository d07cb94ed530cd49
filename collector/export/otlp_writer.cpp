#include "export/otlp_writer.h"

#include <algorithm>

#include "export/otlp_logs.h"
#include "export/otlp_message_private.h"
#include "export/otlp_traces.h"

namespace kaq {

OtlpPart OtlpWriter::write(size_t from, size_t most_items, size_t most_bytes) const {
	OtlpPart part;
	part.from = from;
	part.to = from;
	OtlpEnvelope envelope;
	while (part.to < items() && part.items() < std::max<size_t>(most_items, 1)) {
		std::string next = item(part.to);
		if (part.items() > 0 && envelope.bytes() + next.size() > most_bytes) {
			break;
		}
		envelope.add(next);
		part.to++;
	}
	part.bytes = envelope.around(otlp_resource({transaction_, settings_.host}));
	return part;
}

std::unique_ptr<OtlpWriter> make_otlp_writer(OtlpSignal signal, const Transaction &transaction,
											 const OtlpTraceSettings &settings) {
	if (signal == OtlpSignal::kLogs) {
		return std::make_unique<OtlpLogWriter>(transaction, settings);
	}
	return std::make_unique<OtlpTraceWriter>(transaction, settings);
}

} // namespace kaq
