/*
 * Failures that are the same one: by class, place and message, without what varies from one request
 * to the next. An exception and the error that PHP makes of it when nobody catches it are the same.
 * No state; any thread; time in proportion to the length, of which it looks at 4 KiB at most.
 */
#pragma once

#include <string>
#include <string_view>

#include "model/transaction.h"

namespace kaq {

struct FailureGroup {
	std::string key;          /* the same for all failures of the group: 32 hex digits */
	std::string type;         /* the exception's class; "ERROR" for an error of the engine */
	std::string place;        /* "/srv/shop/Cart.php:12", '*' for what varies; may be empty */
	std::string message;      /* '*' for what varies; 512 bytes at most */
	bool is_uncaught = false; /* the failure is what PHP makes of an exception that nobody caught */

	/* "DomainException: no stock of * (Cart.php:12)" */
	std::string readable() const;
};

FailureGroup group_of(const Failure &failure);

/* Whether a failure ended the request. */
bool is_serious(const Failure &failure);

/*
 * A message with '*' for numbers, quoted texts, hashes, UUIDs, e-mail addresses, and for what
 * varies in paths.
 */
std::string without_variables(std::string_view message);

} // namespace kaq
