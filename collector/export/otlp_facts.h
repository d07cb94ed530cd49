/*
 * Finds out what is told of the spans of one request. The transaction is the caller's and has to
 * outlive it, and it what it returns. One thread.
 */
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "analysis/statements.h"
#include "export/otlp_attributes.h"
#include "model/transaction.h"

namespace kaq {

class OtlpFacts {
public:
	/* REQUIRES: at least one span. Literals of statements are told only where they are wanted. */
	OtlpFacts(const Transaction &transaction, bool has_literals);

	OtlpFacts(const OtlpFacts &) = delete;
	OtlpFacts &operator=(const OtlpFacts &) = delete;

	SpanFacts of(size_t index) const;

private:
	void add_request(SpanFacts &facts) const;
	void add_database(SpanFacts &facts, size_t index) const;
	void add_statement(SpanFacts &facts, std::string_view text, bool is_obfuscated) const;
	void find_driver();

	const Transaction &transaction_;
	const bool has_literals_;
	const Statements statements_;
	std::vector<const Execution *> executions_; /* by span; null: it executes nothing */
	std::string_view driver_;                   /* of PDO; empty: unknown, or several */
};

/* As messages of failures and facts of spans need it: "host" and, if it names one, the port. */
void split_server(std::string_view server, std::string &host, int64_t &port);

} // namespace kaq
