/*
 * The parameters of a question, as services read them. What is wrong is thrown as a ServiceMistake,
 * which answer_of() turns into an answer. No state; any thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "query/mistake.h"
#include "query/service.h"
#include "store/filter.h"

namespace kaq {

class ServiceMistake : public std::runtime_error {
public:
	ServiceMistake(int status, const std::string &message, std::string hint = "",
				   std::string parameter = "", std::vector<Mistake> mistakes = {})
		: std::runtime_error(message), status_(status), hint_(std::move(hint)),
		  parameter_(std::move(parameter)), mistakes_(std::move(mistakes)) {
	}

	Answer answer() const;

private:
	int status_;
	std::string hint_;
	std::string parameter_;
	std::vector<Mistake> mistakes_; /* of a query */
};

/* As it was given; empty if it was not. */
const std::string &text_of(const Question &question, const std::string &name);

/* "1" and "true" are true, "", "0" and "false" are not. */
bool flag_of(const Question &question, const std::string &name);

/* A whole number from `least` to `most`; `usual` if there is none. */
int64_t number_of(const Question &question, const std::string &name, int64_t usual, int64_t least,
				  int64_t most);

/* "limit", a number of rows. */
constexpr size_t kMostRows = 10000;
size_t limit_of(const Question &question, size_t usual, size_t most = kMostRows);

/* A time, as the query language writes it: "1h" ago, "2026-11-22", milliseconds since the Unix
 * epoch; `otherwise` if there is none. */
int64_t time_of(const ServiceContext &context, const Question &question, const std::string &name,
				int64_t otherwise);

/* "from" and "to". Where "from" is left out the range begins `usual` milliseconds before its end
 * or now; 0: at the beginning of time. */
TimeRange range_of(const ServiceContext &context, const Question &question, int64_t usual = 0);

/* "q" alone. */
Filter query_of(const ServiceContext &context, const Question &question);

/* What fulfils both. */
Condition both(Condition one, Condition other);

/* "q", "from", "to" and "app" together. */
Filter filter_of(const ServiceContext &context, const Question &question);

} // namespace kaq
