/* Asks the HTTP server under test; its token is "t". */
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "util/unique_fd.h"

namespace kaq_test {

/* Waits for no answer longer than 20 s. */
inline kaq::UniqueFd connected(int family, const sockaddr *address, socklen_t size) {
	kaq::UniqueFd fd(socket(family, SOCK_STREAM, 0));
	timeval limit{20, 0};
	setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	EXPECT_EQ(connect(fd.get(), address, size), 0);
	return fd;
}

inline kaq::UniqueFd connected(uint16_t port) {
	sockaddr_in address{};
	address.sin_family = AF_INET;
	address.sin_port = htons(port);
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	return connected(AF_INET, reinterpret_cast<sockaddr *>(&address), sizeof(address));
}

inline kaq::UniqueFd connected(const std::string &path) {
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	path.copy(address.sun_path, sizeof(address.sun_path) - 1);
	return connected(AF_UNIX, reinterpret_cast<sockaddr *>(&address), sizeof(address));
}

/* `headers` are whole lines. */
inline void ask(const kaq::UniqueFd &fd, const std::string &path, const std::string &headers = "") {
	std::string request = "GET " + path +
						  " HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer t\r\n" + headers +
						  "\r\n";
	EXPECT_EQ(send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL),
			  static_cast<ssize_t>(request.size()));
}

/* What has come of an answer; nothing if the connection was closed. */
inline std::string heard(const kaq::UniqueFd &fd) {
	char piece[4096];
	ssize_t size = recv(fd.get(), piece, sizeof(piece), 0);
	return {piece, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

} // namespace kaq_test
