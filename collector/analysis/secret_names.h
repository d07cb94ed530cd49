/* Names of headers, parameters and settings that say that their value is secret. No state; any
 * thread. */
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kaq {

struct ScrubSettings {
	bool keeps_literals = false;           /* of statements */
	std::vector<std::string> secret_names; /* besides the known ones; whole, whatever the case */
};

/*
 * Whether one of the words that a name is made of says so: "user_pass", "apiKey", "PHPSESSID". Not
 * what merely has the same letters, as "compass" and "keyboard" do. Whatever the case.
 */
bool says_secret(std::string_view name);
/* The same, also of those that the settings name. */
bool is_secret_name(std::string_view name, const ScrubSettings &settings = {});

/* Whether it is one of a password, of which blanks may be part, or of a header whose whole line is
 * secret. REQUIRES: the name is secret. */
bool says_secret_line(std::string_view name);

} // namespace kaq
