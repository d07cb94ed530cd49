/*
 * Takes out of a request what must not be kept, before anything of it is: passwords, tokens,
 * sessions, numbers of payment cards, and the literals of statements. docs/collector.md has the
 * table of what is taken out. In its place stands a mark that keeps how long it was, roughly.
 */
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "model/transaction.h"

namespace kaq {

struct ScrubSettings {
	bool keeps_literals = false;           /* of statements */
	std::vector<std::string> secret_names; /* besides the known ones; whole, whatever the case */
};

void scrub(Transaction &transaction, const ScrubSettings &settings);

/* Whether the name of a header or a parameter says that its value is secret. */
bool is_secret_name(std::string_view name, const ScrubSettings &settings = {});

/* What stands for a secret: "[hidden, 9 to 16 bytes]". */
std::string hidden(std::string_view secret);

/*
 * A text without the secrets that can be found in any text: `name=value` and `"name":"value"` with
 * a secret name, the user's part of URLs, numbers of payment cards.
 */
std::string without_secrets(std::string_view text, const ScrubSettings &settings = {});

} // namespace kaq
