#include "http/http_messages.h"

#include <string>

#include "util/system_time.h"

namespace kaq {
namespace {

namespace http = boost::beast::http;

std::string_view header_of(const RequestMessage &message, http::field name) {
	auto value = message[name];
	return {value.data(), value.size()};
}

/* Every browser says it by name. */
bool takes_gzip(std::string_view encodings) {
	return encodings.find("gzip") != std::string_view::npos &&
		   encodings.find("gzip;q=0") == std::string_view::npos;
}

Access access_of(const RequestMessage &message) {
	return {header_of(message, http::field::host), header_of(message, http::field::origin),
			header_of(message, http::field::authorization),
			header_of(message, http::field::cookie)};
}

} // namespace

std::optional<HttpAnswer> refusal_of(const RequestMessage &message, const AccessRules &rules) {
	std::string_view target(message.target().data(), message.target().size());
	std::string path(target.substr(0, target.find('?')));
	switch (check_access(access_of(message), rules, path, system_time())) {
	case AccessVerdict::kAllowed:
		return std::nullopt;
	case AccessVerdict::kWrongHost:
		return HttpAnswer{421, "text/plain", "this host is not served here\n"};
	case AccessVerdict::kWrongOrigin:
		return HttpAnswer{403, "text/plain", "not from another site's page\n"};
	case AccessVerdict::kNoToken:
		break;
	}
	return HttpAnswer{401, "text/plain", "log in with the link that 'kaq open' prints\n"};
}

HttpRequest request_of(const RequestMessage &message, bool is_local, const AccessRules &rules) {
	std::string_view target(message.target().data(), message.target().size());
	size_t mark = target.find('?');
	HttpRequest request;
	request.method = std::string(message.method_string());
	request.path = std::string(target.substr(0, mark));
	if (mark != std::string_view::npos) {
		request.query = std::string(target.substr(mark + 1));
	}
	if (message[http::field::content_type] == "application/x-www-form-urlencoded") {
		request.form = message.body();
	}
	request.takes_gzip = takes_gzip(header_of(message, http::field::accept_encoding));
	request.known_etag = std::string(header_of(message, http::field::if_none_match));
	request.is_local = is_local;
	request.port = rules.port;
	request.is_known = !is_local && is_known(access_of(message), rules, system_time());
	return request;
}

AnswerMessage head_of(const HttpAnswer &answer, bool keeps_alive) {
	AnswerMessage message;
	message.result(static_cast<unsigned>(answer.status));
	message.version(11);
	message.set(http::field::server, "kaq");
	message.set("Content-Security-Policy", "default-src 'self'");
	message.set("X-Content-Type-Options", "nosniff");
	message.set("Referrer-Policy", "no-referrer");
	message.set(http::field::cache_control, "no-store");
	for (const auto &[name, value] : answer.headers) {
		message.set(name, value);
	}
	message.set(http::field::content_type, answer.type);
	message.keep_alive(keeps_alive);
	if (message.result() != http::status::not_modified) {
		message.content_length(answer.body.size());
	}
	return message;
}

} // namespace kaq
