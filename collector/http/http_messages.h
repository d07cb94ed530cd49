/* What an HTTP message says to the server, and what every answer says. No state; any thread. */
#pragma once

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <optional>
#include <string_view>

#include "http/http_server.h"

namespace kaq {

using RequestMessage = boost::beast::http::request<boost::beast::http::string_body>;
using AnswerMessage = boost::beast::http::response<boost::beast::http::string_body>;

/* The answer to one that came over TCP and must not be served; none if it may. Its body need not
 * have been read. REQUIRES: the token is not empty. */
std::optional<HttpAnswer> refusal_of(const RequestMessage &message, std::string_view token);

/* REQUIRES: the token is not empty. */
HttpRequest request_of(const RequestMessage &message, bool is_local, std::string_view token);

/* Without its body. */
AnswerMessage head_of(const HttpAnswer &answer, bool keeps_alive);

} // namespace kaq
