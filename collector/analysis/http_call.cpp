#include "analysis/http_call.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "analysis/layers.h"
#include "analysis/naming.h"
#include "analysis/statements.h"

namespace kaq {
namespace {

constexpr size_t kLongestHost = 256;
constexpr size_t kLongestEndpoint = 512;
constexpr size_t kLongestUrl = 4096;
constexpr std::array<std::string_view, 10> kMethods = {
	"GET", "HEAD", "POST", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH", "QUERY"};

struct UrlParts {
	std::string_view scheme;
	std::string_view authority; /* without the user's part */
	std::string_view path;
};

UrlParts parts_of(std::string_view url) {
	UrlParts parts;
	size_t colon = url.find("://");
	if (colon != std::string_view::npos) {
		parts.scheme = url.substr(0, colon);
		url.remove_prefix(colon + 3);
	}
	size_t end = std::min(url.find_first_of("/?#"), url.size());
	parts.authority = url.substr(0, end);
	size_t at = parts.authority.rfind('@');
	parts.authority.remove_prefix(at == std::string_view::npos ? 0 : at + 1);
	url.remove_prefix(end);
	parts.path = url.substr(0, url.find_first_of("?#"));
	return parts;
}

std::string lower(std::string_view text) {
	std::string result(text);
	for (char &character : result) {
		character = static_cast<char>(tolower(static_cast<unsigned char>(character)));
	}
	return result;
}

bool ends_with(std::string_view text, std::string_view end) {
	return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string host_of(const UrlParts &parts) {
	std::string host = lower(shortened(parts.authority, kLongestHost));
	std::string_view usual = lower(shortened(parts.scheme, 8)) == "https" ? ":443" : ":80";
	if (ends_with(host, usual)) {
		host.resize(host.size() - usual.size());
	}
	return host;
}

} // namespace

bool is_http_call(const Span &span) {
	return span.is_external && layer_of(span) == Layer::kHttp;
}

bool is_failed_call(const Span &span) {
	return is_http_call(span) && (span.status <= 0 || span.status >= 500);
}

std::string host_of(std::string_view url) {
	return host_of(parts_of(shortened(url, kLongestUrl)));
}

std::string endpoint_of(std::string_view url) {
	UrlParts parts = parts_of(shortened(url, kLongestUrl));
	std::string endpoint = host_of(parts) + normalised_path(parts.path);
	return std::string(shortened(endpoint, kLongestEndpoint));
}

std::string_view known_method(std::string_view method) {
	bool is_known = std::find(kMethods.begin(), kMethods.end(), method) != kMethods.end();
	return is_known || method.empty() ? method : "_OTHER";
}

} // namespace kaq
