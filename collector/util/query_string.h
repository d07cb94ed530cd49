/* The query of a URL: "a=1&b=%2Fc". No state; any thread. */
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace kaq {

/* The value of the first parameter of this name, as it was sent; nothing if it has none. */
std::string_view query_parameter(std::string_view query, std::string_view name);

/* Broken escapes stay as they are. */
std::string percent_decoded(std::string_view text);

/* As forms are sent: '+' is a blank. */
std::string form_decoded(std::string_view text);

/* All parameters, decoded; of several of one name the first. */
std::map<std::string, std::string> form_parameters(std::string_view query);

} // namespace kaq
