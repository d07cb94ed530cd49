#include "wire/client.h"

#include <fcntl.h>
#include <netdb.h>
#include <vector>

#include "call_counts.h"
#include "loopback.h"

namespace {

std::string resolved(const char *name, int expected) {
	char dest[KAQ_ADDRESS_SIZE];
	memset(dest, 'x', sizeof dest);
	EXPECT_EQ(expected, hostname_to_ip(name, dest));
	return dest;
}

std::string collector_address(const char *ip, const char *hostname) {
	char dest[KAQ_ADDRESS_SIZE];
	memset(dest, 'x', sizeof dest);
	kaq_collector_address(ip, hostname, dest);
	EXPECT_LT(strnlen(dest, sizeof dest), sizeof dest);
	return dest;
}

/* A name that no resolver looks for: a label holds 63 characters at most. */
const std::string UNRESOLVABLE = std::string(70, 'a') + ".invalid";

/* Resolver results made by hand. */
struct Entries {
	std::vector<addrinfo> infos;
	std::vector<sockaddr_storage> addresses;

	explicit Entries(const std::vector<const char *> &texts)
		: infos(texts.size()), addresses(texts.size()) {
		for (size_t i = 0; i < texts.size(); i++) {
			int family = strchr(texts[i], ':') != nullptr ? AF_INET6 : AF_INET;
			infos[i] = {};
			infos[i].ai_family = family;
			infos[i].ai_addr = (sockaddr *)&addresses[i];
			infos[i].ai_next = i + 1 < texts.size() ? &infos[i + 1] : nullptr;
			void *raw = family == AF_INET ? (void *)&((sockaddr_in *)&addresses[i])->sin_addr
										  : (void *)&((sockaddr_in6 *)&addresses[i])->sin6_addr;
			inet_pton(family, texts[i], raw);
		}
	}
};

std::string last_of(const std::vector<const char *> &texts, int expected) {
	Entries entries(texts);
	char dest[KAQ_ADDRESS_SIZE] = "untouched";
	EXPECT_EQ(expected, kaq_last_ipv4(entries.infos.data(), dest));
	return dest;
}

int connected(const char *address, int port) {
	int fd = kaq_open_socket();
	EXPECT_GE(fd, 0);
	int result = kaq_connect(fd, address, port);
	close(fd);
	return result;
}

} // namespace

TEST(HostnameToIp, ResolvesALoopbackName) {
	EXPECT_EQ("127.0.0.1", resolved("localhost", 0));
}

TEST(HostnameToIp, TakesDottedTextAsItIs) {
	EXPECT_EQ("127.0.0.5", resolved("127.0.0.5", 0));
}

TEST(HostnameToIp, FailureGivesLoopbackAndOne) {
	EXPECT_EQ("127.0.0.1", resolved(UNRESOLVABLE.c_str(), 1));
}

TEST(HostnameToIp, NameWithIpv6OnlyIsAFailure) {
	EXPECT_EQ("127.0.0.1", resolved("::1", 1));
}

TEST(HostnameToIp, NullNameIsAFailure) {
	EXPECT_EQ("127.0.0.1", resolved(nullptr, 1));
}

TEST(LastIpv4, LastEntryWinsIsMeant) {
	EXPECT_EQ("127.0.0.3", last_of({"127.0.0.1", "127.0.0.2", "127.0.0.3"}, 0));
}

TEST(LastIpv4, OtherFamiliesArePassedOver) {
	EXPECT_EQ("127.0.0.2", last_of({"::1", "127.0.0.1", "127.0.0.2", "fe80::1"}, 0));
}

TEST(LastIpv4, ListWithoutIpv4LeavesTheBufferAlone) {
	EXPECT_EQ("untouched", last_of({"::1", "fe80::1"}, 1));
	char dest[KAQ_ADDRESS_SIZE] = "untouched";
	EXPECT_EQ(1, kaq_last_ipv4(nullptr, dest));
	EXPECT_STREQ("untouched", dest);
}

TEST(CollectorAddress, IpComesBeforeTheHostName) {
	EXPECT_EQ("127.0.0.9", collector_address("127.0.0.9", "localhost"));
}

TEST(CollectorAddress, EmptyOrNullIpFallsThroughToTheHostName) {
	EXPECT_EQ("127.0.0.7", collector_address("", "127.0.0.7"));
	EXPECT_EQ("127.0.0.7", collector_address(nullptr, "127.0.0.7"));
}

TEST(CollectorAddress, NeitherGivesLoopback) {
	EXPECT_EQ("127.0.0.1", collector_address(nullptr, nullptr));
	EXPECT_EQ("127.0.0.1", collector_address("", ""));
}

TEST(CollectorAddress, UnresolvableHostNameGivesLoopback) {
	EXPECT_EQ("127.0.0.1", collector_address("", UNRESOLVABLE.c_str()));
}

TEST(CollectorAddress, IpIsCopiedUncheckedIsMeant) {
	EXPECT_EQ("no address", collector_address("no address", "127.0.0.7"));
}

TEST(CollectorAddress, IpIsCutTo127Characters) {
	EXPECT_EQ(std::string(127, '1'), collector_address(std::string(127, '1').c_str(), nullptr));
	EXPECT_EQ(std::string(127, '1'), collector_address(std::string(128, '1').c_str(), nullptr));
	EXPECT_EQ(std::string(127, '1'), collector_address(std::string(5000, '1').c_str(), nullptr));
}

TEST(OpenSocket, IsNotInheritedByPrograms) {
	int fd = kaq_open_socket();
	ASSERT_GE(fd, 0);
	EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
	close(fd);
}

TEST(Connect, ReachesAListener) {
	Listener listener;
	EXPECT_EQ(0, connected("127.0.0.1", listener.port));
}

TEST(Connect, NoListenerFailsAtOnce) {
	expect_no_wait([](int port) { EXPECT_EQ(-1, connected("127.0.0.1", port)); });
}

TEST(Connect, InvalidDescriptorFails) {
	EXPECT_EQ(-1, kaq_connect(-1, "127.0.0.1", 1));
}

TEST(Connect, PortZeroFails) {
	EXPECT_EQ(-1, connected("127.0.0.1", 0));
}

TEST(Connect, PortIsCutToSixteenBitsIsMeant) {
	Listener listener;
	EXPECT_EQ(0, connected("127.0.0.1", listener.port + 65536));
	EXPECT_EQ(0, connected("127.0.0.1", listener.port - 65536));
	EXPECT_EQ(-1, connected("127.0.0.1", 65536));
}

TEST(Connect, UnparsableAddressCountsAsAllZeroIsMeant) {
	/* The system takes 0.0.0.0 for the machine itself. */
	Listener listener;
	EXPECT_EQ(0, connected("no address", listener.port));
	EXPECT_EQ(0, connected("", listener.port));
	EXPECT_EQ(0, connected("127.0.0.300", listener.port));
}

/* A listener whose queue is full drops what arrives, as an unreachable machine does. */
struct Unreachable {
	Listener listener{0};
	int waiting[8];

	Unreachable() {
		sockaddr_in address = loopback_address(listener.port);
		for (int &fd : waiting) {
			fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
			connect(fd, (sockaddr *)&address, sizeof address);
		}
	}
	~Unreachable() {
		for (int fd : waiting) {
			close(fd);
		}
	}
};

/* How many milliseconds connecting takes to give up. */
static long unconnected() {
	Unreachable peer;
	Stopwatch watch;
	EXPECT_EQ(-1, connected("127.0.0.1", peer.listener.port));
	return watch.ms();
}

TEST(Connect, WithoutAnyAnswerIsBounded) {
	expect_duration(KAQ_CONNECT_TIMEOUT_MS - 20, KAQ_CONNECT_TIMEOUT_MS + 400, unconnected);
}

TEST(Connect, InterruptedBySignalsKeepsItsBound) {
	expect_duration(KAQ_CONNECT_TIMEOUT_MS - 20, KAQ_CONNECT_TIMEOUT_MS + 400, [] {
		Interruptions interruptions;
		long taken = unconnected();
		EXPECT_GT(interruptions.sent, 3);
		return taken;
	});
}

TEST(WriteOnce, ReturnsWhatTheSystemTook) {
	SocketPair pair;
	EXPECT_EQ(5, kaq_write_once(pair.ours, "hello", 5));
	EXPECT_EQ(0, kaq_write_once(pair.ours, "", 0));
	pair.close_ours();
	EXPECT_EQ("hello", read_to_end(pair.theirs));
}

TEST(WriteOnce, UsualTextTakesOneCall) {
	SocketPair pair;
	count_anew();
	EXPECT_EQ(5, kaq_write_once(pair.ours, "hello", 5));
	EXPECT_EQ(1, counted.send);
	EXPECT_EQ(0, counted.setsockopt);
}

TEST(WriteOnce, TextThatDoesNotFitIsWrittenByOneMoreCall) {
	SocketPair pair;
	std::string text = pattern(5000000);
	std::string got;
	count_anew();
	std::thread drain([&] {
		for (int i = 0; i < 500 && counted.send < 2; i++) {
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
		got = read_to_end(pair.theirs);
	});
	EXPECT_EQ((ssize_t)text.size(), kaq_write_once(pair.ours, text.data(), text.size()));
	pair.close_ours();
	drain.join();
	EXPECT_TRUE(got == text);
	EXPECT_EQ(2, counted.send);
	EXPECT_EQ(1, counted.setsockopt);
}

TEST(WriteOnce, WhatWasTakenBeforeTheTimeOutCounts) {
	SocketPair pair;
	std::string text = pattern(5000000);
	ssize_t taken = kaq_write_once(pair.ours, text.data(), text.size());
	EXPECT_GT(taken, 0);
	EXPECT_LT(taken, (ssize_t)text.size());
	pair.close_ours();
	EXPECT_TRUE(read_to_end(pair.theirs) == text.substr(0, (size_t)taken));
}

TEST(WriteOnce, ToAClosedPeerFailsWithoutASignal) {
	SocketPair pair;
	pair.close_theirs();
	signal(SIGPIPE, SIG_DFL);
	EXPECT_EQ(-1, kaq_write_once(pair.ours, "hello", 5));
}

TEST(WriteOnce, InvalidDescriptorFails) {
	EXPECT_EQ(-1, kaq_write_once(-1, "hello", 5));
}

TEST(WriteOnce, InterruptedBeforeTheFirstByteGoesOn) {
	SocketPair pair;
	pair.fill();
	Interruptions interruptions;
	std::thread drain([&] {
		for (int before = interruptions.sent; interruptions.sent < before + 5;) {
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
		read_to_end(pair.theirs);
	});
	EXPECT_EQ(5, kaq_write_once(pair.ours, "hello", 5));
	pair.close_ours();
	drain.join();
}

TEST(WriteOnce, InterruptedAllTheTimeKeepsItsBound) {
	SocketPair pair;
	pair.fill();
	expect_duration(KAQ_WRITE_TIMEOUT_MS - 50, KAQ_WRITE_TIMEOUT_MS + 300, [&pair] {
		Interruptions interruptions;
		Stopwatch watch;
		EXPECT_EQ(-1, kaq_write_once(pair.ours, "hello", 5));
		return watch.ms();
	});
}

TEST(ErrorReporters, TakeAnything) {
	testing::internal::CaptureStderr();
	testing::internal::CaptureStdout();
	client_error("connect failed");
	client_error(nullptr);
	sender_error("connect failed");
	sender_error(nullptr);
	EXPECT_EQ("", testing::internal::GetCapturedStdout());
	EXPECT_EQ("", testing::internal::GetCapturedStderr());
}
