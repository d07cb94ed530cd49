/*
 * What one request adds to the figures that outlive its document: its statements, the hosts that it
 * called, and its failures, each group once. Times are milliseconds. No state; any thread.
 *
 * All texts are valid UTF-8 and at most kLongestFactText bytes long; a visitor of the site may have
 * chosen them. Of each list at most kMostFacts entries are told apart: what else there is stands in
 * one more entry, the last one, whose text, host or key is kOtherFacts and whose other texts are
 * empty.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/transaction.h"

namespace kaq {

constexpr size_t kLongestFactText = 2048;
constexpr size_t kMostFacts = 1000;
constexpr std::string_view kOtherFacts = "(other)";

/*
 * Executions of one statement, told apart by text, component, server, database and caller.
 * Preparing a statement is no execution, but its time belongs to the total.
 */
struct StatementFacts {
	std::string text;      /* '?' for each literal, whatever the document keeps; of a prepared
							  statement whose text is not known "(prepared statement)" */
	std::string component; /* "PDO", "MySQLi", "Postgres", "Cassandra" */
	std::string server;   /* "db1" or "db1:3307", from the connection that the component made before
							 in this request; empty if it told none */
	std::string database; /* its name; empty if it is not known */
	std::string caller;   /* nearest function of user code around it: "Cart::items", else "main" */
	int64_t count = 0;    /* executions; 0 if it was only prepared */
	int64_t total = 0;
	int64_t longest = 0;
	int64_t failed = 0;             /* executions that an error or an exception hit */
	std::vector<int64_t> durations; /* of the executions */
};

/* HTTP calls to one host. The extension does not tell their method. */
struct HostFacts {
	std::string host; /* lower case; with its port unless that is the scheme's: "api:8443" */
	int64_t count = 0;
	int64_t total = 0; /* the calls' durations, also of those that overlapped */
	int64_t longest = 0;
	int64_t failed = 0; /* no status (refused, timed out), or status 500 and above */
	std::vector<int64_t> durations;
};

/* Errors and exceptions of one group: see analysis/failure_group.h. */
struct FailureFacts {
	std::string key;         /* identifies the group, also across requests; at most 64 bytes */
	std::string type;        /* the exception's class; "ERROR" for an error of the engine */
	std::string place;       /* file and line: "/srv/shop/Cart.php:12", '*' for what varies */
	std::string message;     /* '*' for what varies */
	std::string level;       /* the worst one: "Notice", "Warning", "Error"; may be empty */
	int64_t count = 0;       /* an exception that nobody caught counts once */
	bool is_serious = false; /* one of them ended the request */
};

struct Facts {
	std::vector<StatementFacts> statements;
	std::vector<HostFacts> hosts;
	std::vector<FailureFacts> failures;
};

/* Each list in the order of first appearance. Of the spans that are left out nothing counts;
 * `is_left_out` has one for each, or none at all. */
Facts facts_of(const Transaction &transaction, const std::vector<bool> &is_left_out = {});

} // namespace kaq
