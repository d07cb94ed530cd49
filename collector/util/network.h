/* A range of IP addresses, as CIDR writes them. Any thread. */
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kaq {

class Network {
public:
	/* "10.0.0.0/8", "fd00::/8", or one address. Nothing if it is none. */
	static std::optional<Network> parse(std::string_view text);

	/* An IPv4 address that comes as IPv6 (::ffff:10.0.0.1) counts as what it is. */
	bool contains(const sockaddr &address) const;
	std::string text() const;

private:
	using Bytes = std::array<uint8_t, 16>;

	int family_ = AF_INET;
	Bytes bytes_{};
	unsigned bits_ = 0; /* that count, from the first */
};

/* Whether the text is an IP address; `is_loopback` says whether only this host can reach it. */
bool is_ip_address(const std::string &text, bool &is_loopback);

} // namespace kaq
