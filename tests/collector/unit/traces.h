/* Requests to be exported. */
#pragma once

#include <random>

#include "model/transaction.h"

/* With a root that takes this time, and nothing else. */
inline kaq::Transaction request_of(int64_t start, int64_t end) {
	kaq::Transaction transaction;
	transaction.start = start;
	transaction.end = end;
	kaq::Span &root = transaction.spans.emplace_back();
	root.name = "main";
	root.start = start;
	root.end = end;
	return transaction;
}

inline kaq::Span &add_span(kaq::Transaction &transaction, int parent, int64_t start, int64_t end,
						   std::string_view name) {
	kaq::Span &span = transaction.spans.emplace_back();
	span.parent = parent;
	span.start = start;
	span.end = end;
	span.name = transaction.texts.keep(name);
	return span;
}

/* Spans of any times below parents of any times. */
inline kaq::Transaction random_request(std::mt19937 &random) {
	auto below = [&random](unsigned limit) { return static_cast<int>(random() % limit); };
	kaq::Transaction transaction = request_of(1000 + below(20), 1000 + below(60));
	int count = below(40);
	for (int i = 0; i < count; i++) {
		int parent = below(3) == 0 ? i : below(static_cast<unsigned>(i + 1));
		int64_t start = 1000 + below(60);
		add_span(transaction, parent, start, start + below(20) - 3,
				 "span " + std::to_string(i + 1));
	}
	return transaction;
}
