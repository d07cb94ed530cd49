#include "analysis/verdict.h"

namespace kaq {

Verdict verdict_of(const std::vector<Finding> &findings) {
	if (findings.empty()) {
		return {};
	}
	const Finding &first = findings.front();
	return {first.sentence, first.kind, first.gain};
}

Verdict verdict_of(const Transaction &transaction, const FindingOptions &options) {
	return verdict_of(findings_of(transaction, options));
}

} // namespace kaq
