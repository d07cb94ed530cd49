/* An IP address with its port, as the system takes it. */
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kaq {

union SocketAddress {
	sockaddr any;
	sockaddr_in v4;
	sockaddr_in6 v6;

	SocketAddress() : v6{} {
	}

	/* Nothing if the text is no IP address. */
	static std::optional<SocketAddress> parse(const std::string &text, uint16_t port) {
		SocketAddress address;
		if (inet_pton(AF_INET, text.c_str(), &address.v4.sin_addr) == 1) {
			address.v4.sin_family = AF_INET;
			address.v4.sin_port = htons(port);
			return address;
		}
		if (inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr) == 1) {
			address.v6.sin6_family = AF_INET6;
			address.v6.sin6_port = htons(port);
			return address;
		}
		return std::nullopt;
	}

	socklen_t length() const {
		return any.sa_family == AF_INET6 ? sizeof v6 : sizeof v4;
	}
	uint16_t port() const {
		return ntohs(any.sa_family == AF_INET6 ? v6.sin6_port : v4.sin_port);
	}
};

} // namespace kaq
