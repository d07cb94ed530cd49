/* Secrets within texts of any kind. No state; any thread; time in proportion to the length. */
#pragma once

#include <string>
#include <string_view>

#include "analysis/secret_names.h"

namespace kaq {

/* What stands for a secret: "[hidden, 9 to 16 bytes]". */
std::string hidden(std::string_view secret);

/* What a text is, which tells where a value in it ends. */
enum class TextSyntax { kAny, kQuery };

/*
 * A text without the secrets that can be found in any text: values of secret names, as
 * `name=value`, `"name":"value"`, `name: value`, `--name value`, `[name] => value` and
 * `<name>value</name>`; the user's part of URLs; numbers of payment cards; tokens that begin with
 * Bearer, Basic or as a JWT does; private keys; what functions were given in a trace of the stack.
 * What is percent-encoded is looked at decoded. In a query a value ends at '&' alone.
 */
std::string without_secrets(std::string_view text, const ScrubSettings &settings = {},
							TextSyntax syntax = TextSyntax::kAny);

/* The same; false, and `cleaned` untouched, if there are none: nearly always. */
bool find_secrets(std::string_view text, const ScrubSettings &settings, TextSyntax syntax,
				  std::string &cleaned);

} // namespace kaq
