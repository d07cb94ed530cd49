#include "ingest/recorder.h"

#include <algorithm>

#include "analysis/verdict.h"
#include "model/document.h"

namespace kaq {

Recorder::Recorded Recorder::record(const Transaction &transaction) {
	Record record = record_of(transaction, forks_.repeated(transaction));
	FindingOptions options;
	options.serving = record.serving = serving_.of(transaction.thread, transaction.end);
	std::vector<Finding> findings = findings_of(transaction, options);
	Verdict verdict = verdict_of(findings);
	record.verdict.sentence = std::move(verdict.sentence);
	record.verdict.gain = verdict.gain;
	for (const Finding &finding : findings) {
		std::string kind(finding_name(finding.kind));
		std::vector<std::string> &kinds = record.verdict.kinds;
		if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
			kinds.push_back(std::move(kind));
		}
	}
	if (store_.wants_document(record.summary)) {
		record.document = compressor_.compress(to_document(transaction));
	}
	Recorded recorded{record.summary, record.verdict.kinds};
	store_.put(std::move(record));
	return recorded;
}

} // namespace kaq
