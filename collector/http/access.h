/* Who may ask over TCP. No state; any thread. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "http/sessions.h"

namespace kaq {

/* What a request says about itself; empty where it says nothing. */
struct Access {
	std::string_view host;
	std::string_view origin;
	std::string_view authorization;
	std::string_view cookie;
};

/* What lets in. */
struct AccessRules {
	std::string token; /* never empty: of programs, as bearer */
	uint16_t port = 0; /* that they ask, after which the browsers' cookie is named */
	const Sessions *sessions = nullptr; /* of browsers; null: none */
};

enum class AccessVerdict { kAllowed, kWrongHost, kWrongOrigin, kNoToken };

/* Now is in milliseconds since the epoch. */
AccessVerdict check_access(const Access &access, const AccessRules &rules, std::string_view path,
						   int64_t now);

/* Whether it brings the token or a session, whatever else is wrong with it. */
bool is_known(const Access &access, const AccessRules &rules, int64_t now);

/* Compares in a time that tells nothing about the secret. REQUIRES: it is not empty. */
bool is_same_secret(std::string_view given, std::string_view secret);

/* Where a browser gets its session; open to everybody, since it asks for a code. */
constexpr std::string_view kLoginPath = "/login";

} // namespace kaq
