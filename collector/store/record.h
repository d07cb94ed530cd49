/* What a store takes of one request. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/facts.h"
#include "analysis/findings.h"
#include "analysis/summary.h"
#include "model/transaction.h"

namespace kaq {

/* What is said of a request; see analysis/verdict.h. */
struct RequestVerdict {
	std::string sentence;           /* one, plain; empty: there is nothing to say */
	int64_t gain = 0;               /* milliseconds */
	std::vector<std::string> kinds; /* of all findings, one word each; the sentence's first */
};

/* What a search finds requests by. */
enum class TextKind { kStatement = 0, kFunction = 1, kFailure = 2, kCallHost = 3 };
constexpr size_t kTextKinds = 4;

struct RequestText {
	TextKind kind;
	std::string text;
};

/* Of a request's figures, the part that another process of a fork has reported as well. */
struct RepeatedWork {
	int64_t queries = 0;
	int64_t query_time = 0; /* milliseconds, as the other times */
	int64_t calls = 0;
	int64_t external_time = 0;
};

struct Record {
	Summary summary;
	RepeatedWork repeated; /* no part of the facts */
	std::string host;
	std::string instance;
	Serving serving = Serving::kUnknown;
	RequestVerdict verdict;
	Facts facts;
	std::vector<RequestText> texts; /* each once */
	std::string document;           /* compressed; empty if it is not to be kept */
};

/* All but the verdict, how its process serves, and the document. At most kMostTexts texts, of at
 * most kLongestFactText bytes each. */
constexpr size_t kMostTexts = 2000;
/* `is_repeated` tells which spans another process of a fork has reported as well; none at all where
 * it has none. */
Record record_of(const Transaction &transaction, const std::vector<bool> &is_repeated = {});

} // namespace kaq
