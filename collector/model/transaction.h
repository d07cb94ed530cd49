/*
 * One request of a PHP application, as the extension recorded it: a tree of timed spans and what is
 * known about the request. Times are milliseconds since the Unix epoch. All texts are valid UTF-8
 * and may hold anything that a visitor of the site wrote; they belong to the transaction's arena.
 */
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "model/text_arena.h"

namespace kaq {

/* From start to end; 0 if the end comes first. Whatever a document says, a million such durations
 * can be added up. */
constexpr int64_t kLongestDuration = int64_t{1} << 40;

inline int64_t elapsed(int64_t start, int64_t end) {
	if (end <= start) {
		return 0;
	}
	uint64_t difference = static_cast<uint64_t>(end) - static_cast<uint64_t>(start);
	return difference < static_cast<uint64_t>(kLongestDuration) ? static_cast<int64_t>(difference)
																: kLongestDuration;
}

/* A header, a parameter: `name` of an element of a list or a map is as PHP spells it, "a[b][0]". */
struct Field {
	std::string_view name;
	std::string_view value;
};

/* An error or an exception. */
struct Failure {
	std::string_view type; /* the exception's class; "ERROR" for an error of the engine */
	std::string_view file;
	std::string_view level; /* "Notice", "Warning", "Error" */
	std::string_view message;
	int64_t line = 0;
	int64_t time = 0;
};

struct StackFrame {
	std::string_view type; /* the class, or empty */
	std::string_view function;
	std::string_view file;
	int64_t line = 0;
};

struct Span {
	std::string_view name;
	std::string_view component; /* what was called: "PHP" is user code; "PDO", "HTTP" */
	std::string_view id;
	std::string_view parent_id; /* of the root span: the span of the calling service, or empty */
	std::string_view query;
	std::string_view host; /* of an HTTP call: the whole URL */
	std::string_view database;
	int64_t start = 0;
	int64_t end = 0;
	int64_t status = 0; /* of an HTTP call; 0 if there was none */
	int64_t port = 0;
	int32_t values = 0;  /* of several spans whose statements had the same literals: a number that
							these share; 0: no other had the same, or nobody knows */
	int32_t parent = -1; /* index of the parent in the list of spans; -1 for the root */
	bool is_external = false;
	bool is_async = false;
	bool is_failed = false; /* an exception or an error happened in it */
	std::vector<Field> sent_headers;
	std::vector<Field> received_headers;
	std::vector<Failure> failures;
	std::vector<StackFrame> stack; /* innermost call first */

	int64_t duration() const {
		return elapsed(start, end);
	}
};

/* A number that the script told about itself. */
struct Measure {
	std::string_view name;
	double value = 0;
};

struct Transaction {
	TextArena texts;

	std::string_view application;
	std::string_view application_group;
	std::string_view instance_id;
	std::string_view name;            /* what was asked for, or what the script called it */
	std::string_view normalised_name; /* as the handshake named it; empty if it did not */
	std::string_view host;
	std::string_view query_string;
	std::string_view method;
	std::string_view trace_id;
	std::string_view session_id;
	std::string_view flow; /* of the calling service */
	int64_t start = 0;
	int64_t end = 0;
	int64_t bytes_in = 0;
	int64_t bytes_out = 0;
	int64_t status = 0; /* HTTP status; 0 for a script of the command line */
	int64_t thread = 0;
	int64_t cpu = 0;    /* milliseconds */
	int64_t memory = 0; /* peak, bytes */
	bool is_web = false;
	bool is_async = false; /* called by a service that did not wait */
	std::vector<Field> request_headers;
	std::vector<Field> parameters; /* of the request; of a command-line script its arguments */
	std::vector<Field> response_headers;
	std::vector<Field> custom_parameters;
	std::vector<Measure> sums;
	std::vector<Measure> averages;
	std::vector<Span> spans; /* parents before their children; the first is the root */

	int64_t duration() const {
		return elapsed(start, end);
	}
};

} // namespace kaq
