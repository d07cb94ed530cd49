#include "util/network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>

namespace kaq {
namespace {

constexpr size_t kMappedPrefix = 12;

unsigned bits_of(int family) {
	return family == AF_INET ? 32 : 128;
}

bool has_prefix(const uint8_t *address, const uint8_t *network, unsigned bits) {
	if (std::memcmp(address, network, bits / 8) != 0) {
		return false;
	}
	unsigned rest = bits % 8;
	return rest == 0 || ((address[bits / 8] ^ network[bits / 8]) >> (8 - rest)) == 0;
}

} // namespace

std::optional<Network> Network::parse(std::string_view text) {
	size_t slash = text.find('/');
	std::string address(text.substr(0, slash));
	Network network;
	if (inet_pton(AF_INET, address.c_str(), network.bytes_.data()) != 1) {
		network.family_ = AF_INET6;
		if (inet_pton(AF_INET6, address.c_str(), network.bytes_.data()) != 1) {
			return std::nullopt;
		}
	}
	/* c_str() ends at a NUL, the text need not. */
	if (address.find('\0') != std::string::npos) {
		return std::nullopt;
	}
	network.bits_ = bits_of(network.family_);
	if (slash != std::string_view::npos) {
		std::string_view bits = text.substr(slash + 1);
		auto [end, error] = std::from_chars(bits.data(), bits.data() + bits.size(), network.bits_);
		if (error != std::errc() || end != bits.data() + bits.size() ||
			network.bits_ > bits_of(network.family_)) {
			return std::nullopt;
		}
	}
	return network;
}

bool Network::contains(const sockaddr &address) const {
	if (address.sa_family == AF_INET) {
		const auto &v4 = reinterpret_cast<const sockaddr_in &>(address);
		return family_ == AF_INET &&
			   has_prefix(reinterpret_cast<const uint8_t *>(&v4.sin_addr), bytes_.data(), bits_);
	}
	if (address.sa_family != AF_INET6) {
		return false;
	}
	const auto &v6 = reinterpret_cast<const sockaddr_in6 &>(address);
	const uint8_t *bytes = v6.sin6_addr.s6_addr;
	if (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr)) {
		return family_ == AF_INET && has_prefix(bytes + kMappedPrefix, bytes_.data(), bits_);
	}
	return family_ == AF_INET6 && has_prefix(bytes, bytes_.data(), bits_);
}

std::string Network::text() const {
	char address[INET6_ADDRSTRLEN] = "";
	inet_ntop(family_, bytes_.data(), address, sizeof address);
	return std::string(address) + "/" + std::to_string(bits_);
}

bool is_ip_address(const std::string &text, bool &is_loopback) {
	in_addr v4;
	in6_addr v6;
	if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
		is_loopback = ntohl(v4.s_addr) >> 24 == IN_LOOPBACKNET;
		return true;
	}
	if (inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
		is_loopback = IN6_IS_ADDR_LOOPBACK(&v6);
		return true;
	}
	return false;
}

} // namespace kaq
