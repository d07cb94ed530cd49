/* What an HTTP message says to the server, and what every answer says. No state; any thread. */
#pragma once

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <optional>

#include "http/access.h"
#include "http/http_server.h"

namespace kaq {

using RequestMessage = boost::beast::http::request<boost::beast::http::string_body>;
using AnswerMessage = boost::beast::http::response<boost::beast::http::string_body>;

/* The answer to one that came over TCP and must not be served; none if it may. Its body need not
 * have been read. */
std::optional<HttpAnswer> refusal_of(const RequestMessage &message, const AccessRules &rules);

HttpRequest request_of(const RequestMessage &message, bool is_local, const AccessRules &rules);

/* Without its body. */
AnswerMessage head_of(const HttpAnswer &answer, bool keeps_alive);

} // namespace kaq
