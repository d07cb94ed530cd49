#include "http/access.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

#include "http/viewer_pages.h"
#include "query/fields.h"

namespace kaq {
namespace {

constexpr std::array<std::string_view, 3> kOwnNames = {"localhost", "127.0.0.1", "[::1]"};

std::string_view without_port(std::string_view host) {
	size_t bracket = host.find(']');
	size_t colon = host.find(':', bracket == std::string_view::npos ? 0 : bracket);
	return host.substr(0, colon);
}

bool is_own_name(std::string_view host) {
	std::string_view name = without_port(host);
	return std::any_of(kOwnNames.begin(), kOwnNames.end(),
					   [name](std::string_view own) { return is_same_name(name, own); });
}

std::string_view bearer_of(std::string_view authorization) {
	constexpr std::string_view scheme = "Bearer ";
	bool is_bearer = is_same_name(authorization.substr(0, scheme.size()), scheme);
	return is_bearer ? authorization.substr(scheme.size()) : std::string_view();
}

std::string_view cookie_of(std::string_view cookies, std::string_view name) {
	while (!cookies.empty()) {
		size_t end = cookies.find(';');
		std::string_view each = cookies.substr(0, end);
		while (!each.empty() && each.front() == ' ') {
			each.remove_prefix(1);
		}
		if (each.substr(0, name.size()) == name && each.substr(name.size(), 1) == "=") {
			return each.substr(name.size() + 1);
		}
		cookies = end == std::string_view::npos ? std::string_view() : cookies.substr(end + 1);
	}
	return {};
}

/* The page that asks must have been served under the name that is asked. */
bool is_foreign(const Access &access) {
	return !access.origin.empty() && access.origin != "http://" + std::string(access.host);
}

} // namespace

bool is_same_secret(std::string_view given, std::string_view secret) {
	unsigned char difference = given.size() == secret.size() ? 0 : 1;
	for (size_t i = 0; i < given.size(); i++) {
		difference |= static_cast<unsigned char>(given[i] ^ secret[i % secret.size()]);
	}
	return difference == 0;
}

bool is_known(const Access &access, const AccessRules &rules, int64_t now) {
	return is_same_secret(bearer_of(access.authorization), rules.token) ||
		   (rules.sessions &&
			rules.sessions->has(cookie_of(access.cookie, session_cookie(rules.port)), now));
}

AccessVerdict check_access(const Access &access, const AccessRules &rules, std::string_view path,
						   int64_t now) {
	if (!is_own_name(access.host)) {
		return AccessVerdict::kWrongHost;
	}
	if (is_foreign(access)) {
		return AccessVerdict::kWrongOrigin;
	}
	bool is_open = path == "/healthz" || path == kLoginPath || is_viewer_path(path);
	if (is_open || is_known(access, rules, now)) {
		return AccessVerdict::kAllowed;
	}
	return AccessVerdict::kNoToken;
}

} // namespace kaq
