/*
 * Asks the collector on behalf of a verb: over its Unix socket, or, where none answers and a store
 * was named, by calling the same services on that store, read-only. The answers are the same.
 * One thread.
 */
#pragma once

#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/command_line.h"

namespace kaq {

struct Reply {
	int status = 0;           /* of HTTP; 0: nobody could be asked */
	std::string text;         /* as it was sent; why not, if nobody could be asked */
	bool is_of_files = false; /* no collector answered, and the store's files did */

	bool is_good() const {
		return status == 200;
	}
	/* An empty object if it is no JSON. */
	nlohmann::json json() const;
};

using Parameters = std::map<std::string, std::string>;

class Client {
public:
	/* The store of the options; the configuration's where they name none. */
	explicit Client(const CommonOptions &options);
	~Client();
	Client(const Client &) = delete;
	Client &operator=(const Client &) = delete;

	/* Parameters that are empty are left out. */
	Reply get(const std::string &path, const Parameters &parameters = {});
	/* Changes something, for which a collector has to run. */
	Reply post(const std::string &path, const Parameters &parameters = {});

private:
	struct Direct;

	Reply ask(const std::string &method, const std::string &path, const Parameters &parameters);
	Reply ask_store(const std::string &method, const std::string &path,
					const Parameters &parameters);

	std::string store_;
	bool has_store_; /* it was named */
	std::unique_ptr<Direct> direct_;
};

/* Why nobody answers on a store's socket, and what to do. */
std::string unanswered_text(const std::string &store);

/* Parameters "q", "from", "to" and "app". */
Parameters parameters_of(const FilterOptions &options);

/* Says on stderr what is wrong, with a hint, and under a query where; the exit status for that. */
int fail(const Reply &reply, const std::string &query = "");

/* Prints the answer as it is. */
void print_json(const Reply &reply);

} // namespace kaq
