/*
 * Decides which documents are kept when more come than there is room for: those of failed and slow
 * requests first, of the others a sample that all services of a trace agree on. One thread at a
 * time.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "analysis/summary.h"
#include "util/histogram.h"

namespace kaq {

struct DocumentSettings {
	bool keeps_all = false;
	int64_t bytes = 2LL * 1024 * 1024 * 1024; /* for documents and everything else */
	int64_t time = 24LL * 3600 * 1000;        /* that they are to last for, milliseconds */
};

class DocumentBudget {
public:
	/* The budget is full at first. */
	explicit DocumentBudget(const DocumentSettings &settings);

	/* Other settings from now on; as much of the budget is left as before, in proportion. */
	void use(const DocumentSettings &settings);

	/* Whether to keep the document of this request. */
	bool wants(const Summary &summary, int64_t now);
	/* What keeping something took. */
	void spend(int64_t bytes);

	/* Of all requests that are neither slow nor failed, the share that is kept now. */
	double share() const;

private:
	bool is_slow(const Summary &summary, int64_t now);

	DocumentSettings settings_;
	double most_ = 0;
	double left_ = 0;
	int64_t filled_ = 0;
	/* Durations by transaction since `begun_`, to know which are slow. */
	std::unordered_map<std::string, Histogram> durations_;
	int64_t begun_ = 0;
};

} // namespace kaq
