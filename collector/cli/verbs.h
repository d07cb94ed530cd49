/* What can be typed behind `kaq`. Each takes its options and returns the exit status: 0 done, 1 it
 * could not be done, which stderr explains. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kaq {

/* What is given wins over the configuration file. */
struct CollectOptions {
	std::string configuration; /* file; empty: the usual one, if it is there */
	std::optional<uint16_t> handshake_port;
	std::optional<uint16_t> data_port;
	std::optional<uint16_t> http_port;
	std::string store; /* empty: the configuration's */
	bool is_json = false;
};

/* Runs until SIGTERM or SIGINT. */
int collect(const CollectOptions &options);

struct TailOptions {
	std::string store;         /* of the collector; empty: the configuration's */
	std::string configuration; /* file; empty: the usual one, if it is there */
	std::string query;         /* which requests; empty: all */
	int64_t slower = 0;        /* milliseconds */
	bool errors = false;
	bool json = false;
	int64_t count = 0; /* ends after so many; 0: never */
};

/* Of a verb that was not understood. */
constexpr int kMisunderstood = 2;

/* Requests as they end, one line each; status 1 if no collector runs or it ends, kMisunderstood for
 * a query with mistakes. */
int tail(const TailOptions &options);

/* Says each mistake of the configuration file with its line; status 1 if there is one. */
int config_check(const std::string &file, bool is_json);
/* Prints the settings that hold, the defaults among them, as a configuration file or as JSON. */
int config_show(const std::string &file, bool is_json);

} // namespace kaq
