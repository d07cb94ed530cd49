/*
 * A request as the messages of OTLP have it: spans, or log records. Such messages can be put one
 * behind the other, and are one then. Any thread; each writer has one at a time.
 *
 * Times are the document's milliseconds: the digits of nanoseconds behind them are zeros.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "export/otlp_signal.h"
#include "model/transaction.h"

namespace kaq {

struct OtlpTraceSettings {
	bool has_literals = false; /* of statements, where the document has them */
	std::string host;          /* the machine that all requests come from; empty: it is not known */
};

/* Some items of a request. */
struct OtlpPart {
	size_t from = 0;
	size_t to = 0; /* behind the last one */
	std::string bytes;

	size_t items() const {
		return to - from;
	}
};

class OtlpWriter {
public:
	virtual ~OtlpWriter() = default;
	OtlpWriter(const OtlpWriter &) = delete;
	OtlpWriter &operator=(const OtlpWriter &) = delete;

	virtual size_t items() const = 0;
	/* From that item on as many as are in these bounds, and one at least. */
	OtlpPart write(size_t from, size_t most_items, size_t most_bytes) const;

protected:
	/* What is passed outlives it. */
	OtlpWriter(const Transaction &transaction, const OtlpTraceSettings &settings)
		: transaction_(transaction), settings_(settings) {
	}

	const Transaction &transaction_;
	const OtlpTraceSettings &settings_;

private:
	virtual std::string item(size_t index) const = 0;
};

/* Of traces or logs. REQUIRES: at least one span; what is passed outlives it. */
std::unique_ptr<OtlpWriter> make_otlp_writer(OtlpSignal signal, const Transaction &transaction,
											 const OtlpTraceSettings &settings);

} // namespace kaq
