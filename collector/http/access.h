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

/* The cookie that holds the token. */
constexpr std::string_view kTokenCookie = "kaq_token";

} // namespace kaq
