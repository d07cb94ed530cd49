/*
 * What is told of a span by which attribute: one table, by the semantic conventions where they have
 * a name for it. No state; any thread.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "analysis/statements.h"
#include "export/otlp_ids.h"
#include "ingest/request_metrics.h"
#include "model/transaction.h"

namespace kaq {

/* What a span is about; bits. */
enum SpanClass : unsigned {
	kServerSpan = 1, /* the root of a web request */
	kScriptSpan = 2, /* the root of a script of the command line */
	kCodeSpan = 4,   /* user code */
	kDatabaseSpan = 8,
	kCacheSpan = 16,
	kHttpSpan = 32, /* an HTTP call */
	kOtherSpan = 64,
};
constexpr unsigned kRootSpans = kServerSpan | kScriptSpan;
constexpr unsigned kAllSpans = 127;

/* Text is the transaction's or the facts'. None: there is no such attribute. */
using OtlpValue = std::variant<std::monostate, std::string_view, int64_t, bool>;

/* A span as the table looks at it. Texts belong to the transaction, to what was found in it, or to
 * the facts themselves. */
struct SpanFacts {
	const Transaction &transaction;
	const Span &span;
	unsigned span_class = kOtherSpan;
	bool is_failed = false;
	std::string_view method = {};     /* of a request */
	std::string_view system = {};     /* of a database or a cache */
	std::string_view name_space = {}; /* of a database */
	std::string_view statement = {};
	std::string_view parent = {}; /* what a caller sent that is no identifier */
	std::string operation = {};
	std::string summary = {}; /* of a statement */
	std::string server = {};
	std::string stack = {};
	std::string error_type = {};
	int64_t port = 0;
};

struct OtlpAttribute {
	const char *key;
	unsigned spans; /* classes that may have it */
	OtlpValue (*value)(const SpanFacts &);
};

const std::vector<OtlpAttribute> &otlp_attributes();

/* What the transactions and settings tell of whom they come from. */
struct ResourceFacts {
	const Transaction &transaction;
	std::string_view host; /* the machine's name, where it is known */
};

struct OtlpResourceAttribute {
	const char *key;
	OtlpValue (*value)(const ResourceFacts &);
};

const std::vector<OtlpResourceAttribute> &otlp_resource_attributes();

/* Of a failure. */
struct EventFacts {
	explicit EventFacts(const Failure &one);

	const Failure &failure;
	std::string place; /* as a line of a stack; empty: it is not known */
};

/* That are sent of a span. */
constexpr size_t kMostOtlpEvents = 128;

struct OtlpEventAttribute {
	const char *key;
	OtlpValue (*value)(const EventFacts &);
};

/* Of an event named "exception", and of a log record. */
const std::vector<OtlpEventAttribute> &otlp_event_attributes();
/* Of a log record besides. */
const std::vector<OtlpEventAttribute> &otlp_log_attributes();

/* Of a point of a metric. */
struct MetricFacts {
	explicit MetricFacts(const RequestKey &one);

	const RequestKey &key;
	std::string error_type; /* empty: it did not fail */
};

struct OtlpPointAttribute {
	const char *key;
	OtlpValue (*value)(const MetricFacts &);
};

const std::vector<OtlpPointAttribute> &otlp_point_attributes();

} // namespace kaq
