/* A request, as a condition looks at it, before any store has it. Refers to what it is made of. */
#pragma once

#include <string>
#include <vector>

#include "analysis/summary.h"
#include "model/transaction.h"
#include "store/filter.h"

namespace kaq {

/* What a summary alone tells: no texts but its own, no host, no verdict. */
class SummaryView : public RequestView {
public:
	explicit SummaryView(const Summary &summary) : summary_(summary) {
	}

	int64_t start() const override;
	int64_t number(NumberField field) const override;
	bool has(Flag flag) const override;
	bool has_text(TextField field, const TextTest &test) const override;
	bool has_text(WordField field, const TextTest &test) const override;

private:
	const Summary &summary_;
};

/* Everything. */
class TransactionView : public SummaryView {
public:
	/* REQUIRES: the summary is the transaction's; `verdicts` are the names of its findings. */
	TransactionView(const Transaction &transaction, const Summary &summary,
					const std::vector<std::string> &verdicts)
		: SummaryView(summary), transaction_(transaction), verdicts_(verdicts) {
	}

	bool has_text(TextField field, const TextTest &test) const override;
	bool has_text(WordField field, const TextTest &test) const override;

private:
	const Transaction &transaction_;
	const std::vector<std::string> &verdicts_;
};

/* An error as the text in which words are looked for: "class: message". */
std::string error_text(const Failure &failure);

} // namespace kaq
