/*
 * What a browser gets that asks for a page. There is nothing in it that anybody may not see: what
 * was recorded is asked for by the page itself, with the browser's token. No state; any thread.
 */
#pragma once

#include <optional>
#include <string_view>

#include "http/http_server.h"

namespace kaq {

/* Whether this path is a page's or a file's: one word, and none of the interface's. */
bool is_viewer_path(std::string_view path);

/* The file of that path, or the page that all others begin with; nothing if there is no such file.
 * REQUIRES: is_viewer_path(request.path) */
std::optional<HttpAnswer> viewer_answer(const HttpRequest &request);

} // namespace kaq
