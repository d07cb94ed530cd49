#include "cli/descriptors.h"

#include <gtest/gtest.h>

#include "http/http_server.h"
#include "net/data_server.h"
#include "net/handshake_server.h"

using namespace kaq;

namespace {

TEST(Descriptors, EnoughOfThemGiveEveryPortItsUsualLimit) {
	ConnectionLimits limits = connection_limits(1 << 20);
	EXPECT_EQ(HandshakeServer::kMostConnections, limits.handshakes);
	EXPECT_EQ(DataServer::kMostConnections, limits.payloads);
	EXPECT_EQ(kMostHttpConnections, limits.http);
}

TEST(Descriptors, FewAreSharedOutAndSomeAreLeft) {
	for (size_t descriptors : {16u, 256u, 1024u, 4096u, 6000u}) {
		ConnectionLimits limits = connection_limits(descriptors);
		size_t all = limits.handshakes + limits.payloads + limits.http;
		EXPECT_LE(all + std::min<size_t>(descriptors / 2, 1024), descriptors + 3) << descriptors;
		EXPECT_LT(limits.payloads, DataServer::kMostConnections) << descriptors;
		EXPECT_GE(limits.handshakes, 1u);
		EXPECT_GE(limits.http, 1u);
		/* Most of what there is is used. */
		EXPECT_GE(all + 3, descriptors - std::min<size_t>(descriptors / 2, 1024)) << descriptors;
	}
}

} // namespace
