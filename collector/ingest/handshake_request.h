/*
 * What the extension asks at the start of each request. It is text of a known shape, and not always
 * JSON: the port stands in it without quotes, and a visitor of the site may have chosen up to nine
 * of its characters. So a member counts at its first place, and none that stands before the port
 * can be spoken for by what comes after it.
 */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

struct HandshakeRequest {
	std::string version; /* of the extension */
	std::string application;
	std::string group;
	std::string host;
	std::string port;
	std::string transaction; /* what the request asks for: a path */
	bool takes_snippet = false;
};

/* Never fails: what cannot be found is empty. */
HandshakeRequest read_handshake_request(std::string_view text);

} // namespace kaq
