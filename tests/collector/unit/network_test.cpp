#include "util/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

using kaq::Network;

/* Whether the network has that address in it. */
static bool holds(const char *network, const char *address) {
	std::optional<Network> parsed = Network::parse(network);
	EXPECT_TRUE(parsed) << network;
	union {
		sockaddr any;
		sockaddr_in v4;
		sockaddr_in6 v6;
	} socket_address{};
	if (inet_pton(AF_INET, address, &socket_address.v4.sin_addr) == 1) {
		socket_address.v4.sin_family = AF_INET;
	} else {
		EXPECT_EQ(1, inet_pton(AF_INET6, address, &socket_address.v6.sin6_addr)) << address;
		socket_address.v6.sin6_family = AF_INET6;
	}
	return parsed && parsed->contains(socket_address.any);
}

TEST(Network, HasTheAddressesThatBeginAsItDoes) {
	EXPECT_TRUE(holds("10.0.0.0/8", "10.255.1.2"));
	EXPECT_FALSE(holds("10.0.0.0/8", "11.0.0.1"));
	EXPECT_TRUE(holds("172.16.0.0/12", "172.31.255.255"));
	EXPECT_FALSE(holds("172.16.0.0/12", "172.32.0.0"));
	EXPECT_TRUE(holds("192.168.7.9", "192.168.7.9"));
	EXPECT_FALSE(holds("192.168.7.9", "192.168.7.8"));
	EXPECT_TRUE(holds("0.0.0.0/0", "8.8.8.8"));
	EXPECT_TRUE(holds("fd00::/8", "fdab::1"));
	EXPECT_FALSE(holds("fd00::/8", "fe80::1"));
	EXPECT_TRUE(holds("2001:db8::/33", "2001:db8:7fff::1"));
	EXPECT_FALSE(holds("2001:db8::/33", "2001:db8:8000::1"));
}

TEST(Network, OneFamilyIsNotTheOther) {
	EXPECT_FALSE(holds("0.0.0.0/0", "::1"));
	EXPECT_FALSE(holds("::/0", "10.0.0.1"));
	EXPECT_TRUE(holds("10.0.0.0/8", "::ffff:10.1.2.3"));
	EXPECT_FALSE(holds("10.0.0.0/8", "::ffff:11.1.2.3"));
	EXPECT_FALSE(holds("::/0", "::ffff:10.1.2.3"));
}

TEST(Network, GarbageIsNone) {
	for (std::string text :
		 {std::string(), std::string("10.0.0.0/33"), std::string("10.0.0/8"), std::string("::/129"),
		  std::string("10.0.0.0/"), std::string("10.0.0.0/8x"), std::string("10.0.0.0/-1"),
		  std::string("localhost"), std::string("10.0.0.1\0", 9)}) {
		EXPECT_FALSE(Network::parse(text)) << text;
	}
}

TEST(Network, ItsTextIsReadBack) {
	EXPECT_EQ("10.0.0.0/8", Network::parse("10.0.0.0/8")->text());
	EXPECT_EQ("::1/128", Network::parse("::1")->text());
}
