/* What can be typed behind `kaq`. Each takes its options and returns the exit status: 0 done, 1 it
 * could not be done, which stderr explains. */
#pragma once

#include <cstdint>
#include <string>

namespace kaq {

struct CollectOptions {
	std::string address = "127.0.0.1";
	uint16_t handshake_port = 20021;
	uint16_t data_port = 20022;
	uint16_t http_port = 20023;
	std::string store; /* empty: the default */
};

/* Runs until SIGTERM or SIGINT. */
int collect(const CollectOptions &options);

struct TailOptions {
	std::string store;  /* of the collector; empty: the default */
	std::string query;  /* which requests; empty: all */
	int64_t slower = 0; /* milliseconds */
	bool errors = false;
	bool json = false;
	int64_t count = 0; /* ends after so many; 0: never */
};

/* Of a verb that was not understood. */
constexpr int kMisunderstood = 2;

/* Requests as they end, one line each; status 1 if no collector runs or it ends, kMisunderstood for
 * a query with mistakes. */
int tail(const TailOptions &options);

} // namespace kaq
