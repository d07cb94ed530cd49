/*
 * Makes transactions of what the extension sends: Base64 of a JSON document with two places that
 * are no JSON and texts that need not be UTF-8. Nothing in it is trusted.
 *
 * What a payload becomes takes memory in proportion to its size: names and lists that would take
 * more are cut. A reader keeps its memory from one payload to the next, but for a very large one;
 * while it reads it needs up to ten times what it is given. It is used by one thread at a time.
 */
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <tl/expected.hpp>

#include "model/transaction.h"

namespace kaq {

/* Why a payload was refused. */
enum class PayloadError { kNotBase64, kNotJson, kNotATransaction, kTooManySpans, kTooManyValues };

/* A word for each, as metrics and logs use it: "not-base64". */
std::string_view payload_error_name(PayloadError error);

class PayloadReader {
public:
	PayloadReader();
	~PayloadReader();
	PayloadReader(const PayloadReader &) = delete;
	PayloadReader &operator=(const PayloadReader &) = delete;

	/* One line of the data port, without its line feed. */
	tl::expected<Transaction, PayloadError> read(std::string_view line);
	/* The same without Base64. */
	tl::expected<Transaction, PayloadError> read_json(std::string json);

	/* Whether the last one told more in lists and maps than is kept of it. */
	bool was_cut() const {
		return was_cut_;
	}

private:
	struct Parser;
	std::unique_ptr<Parser> parser_;
	bool was_cut_ = false;
};

/*
 * Turns the commas that follow an opening brace into blanks: the extension writes them where a
 * first member is left out. Braces within strings are left alone.
 */
void mend_leading_commas(std::string &json);

} // namespace kaq
