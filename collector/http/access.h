/* Who may ask over TCP. No state; any thread. */
#pragma once

#include <string_view>

namespace kaq {

/* What a request says about itself; empty where it says nothing. */
struct Access {
	std::string_view host;
	std::string_view origin;
	std::string_view authorization;
	std::string_view cookie;
};

enum class AccessVerdict { kAllowed, kWrongHost, kWrongOrigin, kNoToken };

/* REQUIRES: the token is not empty. */
AccessVerdict check_access(const Access &access, std::string_view token, std::string_view path);

/* Whether it brings the token, whatever else is wrong with it. REQUIRES: the token is not empty. */
bool has_token(const Access &access, std::string_view token);

/* Compares in a time that tells nothing about the secret. REQUIRES: it is not empty. */
bool is_same_secret(std::string_view given, std::string_view secret);

/* Where a browser gets the cookie; open to everybody, since it asks for a code. */
constexpr std::string_view kLoginPath = "/login";

/* The cookie that holds the token. */
constexpr std::string_view kTokenCookie = "kaq_token";

} // namespace kaq
