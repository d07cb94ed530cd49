#include "wire/receiver.h"

#include <vector>

#include "wire/client.h"
#include "call_counts.h"
#include "loopback.h"

namespace {

/* An answer, which is freed, as text; a null answer is marked. */
std::string text_of(char *answer) {
	std::string text = answer == nullptr ? "(null)" : answer;
	free(answer);
	return text;
}

std::string exchanged(int port, const std::string &request) {
	return text_of(kaq_exchange("127.0.0.1", port, request.data(), request.size()));
}

/* What is read where these packets were written before the end. */
std::string read_answer(const std::vector<std::string> &packets, size_t limit, kaq_grow_fn grow,
						int type = SOCK_STREAM) {
	SocketPair pair(type);
	for (const std::string &packet : packets) {
		EXPECT_TRUE(write_all(pair.theirs, packet));
	}
	pair.close_theirs();
	return text_of(kaq_read_answer(pair.ours, limit, grow));
}

/* What the exchange gives when the peer answers one line with `answer` and closes. */
std::string answered(const std::string &answer) {
	Peer peer([&answer](int fd) {
		read_line(fd);
		write_all(fd, answer);
	});
	return exchanged(peer.port(), "request\n");
}

/* Holds a connection until the other side closes it. */
void hold(int fd) {
	read_to_end(fd);
}

/* How many milliseconds the exchange takes to give an empty answer. */
long unanswered(const std::function<void(int)> &serve) {
	Peer peer(serve);
	Stopwatch watch;
	EXPECT_EQ("", exchanged(peer.port(), "request\n"));
	return watch.ms();
}

void expect_a_second(const std::function<long()> &run) {
	expect_duration(KAQ_ANSWER_TIMEOUT_MS - 20, KAQ_ANSWER_TIMEOUT_MS + 300, run);
}

std::vector<size_t> grown_sizes;

void *recording_grow(void *block, size_t size) {
	grown_sizes.push_back(size);
	return realloc(block, size);
}

void *failing_grow(void *, size_t) {
	return nullptr;
}

} // namespace

TEST(Exchange, SendsTheRequestAsItIs) {
	std::string got;
	std::string request = "{\"connect_info\":{}}\n";
	{
		Peer peer([&got](int fd) { got = read_line(fd); });
		EXPECT_EQ("", exchanged(peer.port(), request));
	}
	EXPECT_EQ(request, got);
}

TEST(Exchange, ReturnsTheAnswer) {
	EXPECT_EQ("{\"instance.status\":920}", answered("{\"instance.status\":920}"));
}

class ExchangeSize : public testing::TestWithParam<size_t> {};

TEST_P(ExchangeSize, AnswerIsKeptWhole) {
	std::string answer = pattern(GetParam());
	EXPECT_TRUE(answered(answer) == answer);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ExchangeSize,
						 testing::Values(1, 1023, 1024, 4094, 4095, 4096, 4097, 5119, 5120, 5121,
										 8191, 8192, 8193, 100000, 5000000));

TEST(Exchange, OneByteAtATimeIsKeptWhole) {
	std::string answer = pattern(3000);
	Peer peer([&answer](int fd) {
		int on = 1;
		setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
		read_line(fd);
		for (char c : answer) {
			write_all(fd, std::string(1, c));
		}
	});
	EXPECT_EQ(answer, exchanged(peer.port(), "request\n"));
}

TEST(Exchange, AnswerBeyondTheLimitCountsAsEmpty) {
	EXPECT_EQ("", answered(pattern(KAQ_ANSWER_MAX + 1)));
}

TEST(Exchange, AnswerWithoutEndIsBounded) {
	expect_duration(0, KAQ_ANSWER_TIMEOUT_MS + 300, [] {
		return unanswered([](int fd) {
			read_line(fd);
			std::string piece = pattern(65536);
			while (write_all(fd, piece)) {
			}
		});
	});
}

TEST(Exchange, NoListenerGivesAnEmptyAnswer) {
	expect_no_wait([](int port) { EXPECT_EQ("", exchanged(port, "request\n")); });
}

TEST(Exchange, PortZeroGivesAnEmptyAnswer) {
	EXPECT_EQ("", exchanged(0, "request\n"));
}

TEST(Exchange, PeerThatClosesAtOnceGivesAnEmptyAnswer) {
	signal(SIGPIPE, SIG_DFL);
	Peer peer([](int) {});
	EXPECT_EQ("", exchanged(peer.port(), "request\n"));
}

TEST(Exchange, ResetInTheMiddleOfTheAnswerGivesAnEmptyAnswer) {
	Peer peer([](int fd) {
		read_line(fd);
		write_all(fd, "{\"instance.id\":\"i1\",");
		/* Lets the part arrive, so that the reset comes after a good read. */
		std::this_thread::sleep_for(std::chrono::milliseconds(100));
		reset_on_close(fd);
	});
	EXPECT_EQ("", exchanged(peer.port(), "request\n"));
}

TEST(Exchange, SilentPeerGivesAnEmptyAnswerAfterOneSecond) {
	expect_a_second([] { return unanswered(hold); });
}

TEST(Exchange, PeerThatNeverClosesGivesAnEmptyAnswerAfterOneSecond) {
	expect_a_second([] {
		return unanswered([](int fd) {
			read_line(fd);
			write_all(fd, "{\"instance.id\":\"i1\",\"instance.status\":920}");
			hold(fd);
		});
	});
}

TEST(Exchange, TricklingAnswerIsBoundedAsAWhole) {
	expect_a_second([] {
		return unanswered([](int fd) {
			read_line(fd);
			while (write_all(fd, "x")) {
				std::this_thread::sleep_for(std::chrono::milliseconds(50));
			}
		});
	});
}

TEST(Exchange, SignalsDoNotCutTheAnswer) {
	Peer peer([](int fd) {
		read_line(fd);
		std::this_thread::sleep_for(std::chrono::milliseconds(150));
		write_all(fd, "first ");
		std::this_thread::sleep_for(std::chrono::milliseconds(150));
		write_all(fd, "second");
	});
	Interruptions interruptions;
	EXPECT_EQ("first second", exchanged(peer.port(), "request\n"));
	EXPECT_GT(interruptions.sent, 5);
}

TEST(Exchange, SignalsDoNotStretchTheBound) {
	expect_a_second([] {
		Interruptions interruptions;
		return unanswered(hold);
	});
}

TEST(Exchange, LeavesNoDescriptorOpen) {
	int before = open_descriptors();
	for (int i = 0; i < 20; i++) {
		EXPECT_EQ("answer", answered("answer"));
		EXPECT_EQ("", exchanged(closed_port(), "request\n"));
		Peer resetting([](int fd) { reset_on_close(fd); });
		EXPECT_EQ("", exchanged(resetting.port(), "request\n"));
	}
	EXPECT_EQ(before, open_descriptors());
}

TEST(Exchange, WithoutAFreeDescriptorTheAnswerIsEmpty) {
	Listener listener;
	NoFreeDescriptor none;
	EXPECT_EQ("", exchanged(listener.port, "request\n"));
}

TEST(ReadAnswer, UsualAnswerIsReadByOneCallAndItsEndByAnother) {
	SocketPair pair;
	std::thread peer([&pair] {
		for (const char *piece : {"{\"instance.id\":", "\"i1\"}"}) {
			std::this_thread::sleep_for(std::chrono::milliseconds(50));
			EXPECT_TRUE(write_all(pair.theirs, piece));
		}
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
		pair.close_theirs();
	});
	count_anew();
	EXPECT_EQ("{\"instance.id\":\"i1\"}", text_of(kaq_read_answer(pair.ours, 100, realloc)));
	int reads = counted.recv;
	int waits = counted.poll;
	peer.join();
	EXPECT_EQ(2, reads);
	EXPECT_EQ(0, waits);
}

TEST(ReadAnswer, FailedGrowthGivesNull) {
	EXPECT_EQ("(null)", read_answer({pattern(9000)}, KAQ_ANSWER_MAX, failing_grow));
}

TEST(ReadAnswer, BlockDoublesSoThatLongAnswersAreLinear) {
	std::string answer = pattern(10000);
	grown_sizes.clear();
	EXPECT_EQ(answer, read_answer({answer}, KAQ_ANSWER_MAX, recording_grow));
	EXPECT_EQ((std::vector<size_t>{16384}), grown_sizes);
}

TEST(ReadAnswer, UsualAnswerLeavesTheBlockAsItIs) {
	std::string answer = pattern(4000);
	grown_sizes.clear();
	EXPECT_EQ(answer, read_answer({answer}, KAQ_ANSWER_MAX, recording_grow));
	EXPECT_EQ(std::vector<size_t>(), grown_sizes);
}

TEST(ReadAnswer, LongestAnswerIsKeptAndALongerOneCountsAsEmpty) {
	for (size_t length : {9999, 10000, 10001}) {
		std::string answer = pattern(length);
		EXPECT_EQ(length <= 10000 ? answer : "", read_answer({answer}, 10000, realloc));
	}
}

TEST(ReadAnswer, AsksForNoMoreThanTheSizeHoldsWithANul) {
	/* A packet that is longer than what is asked for loses its rest, which shows what was asked. */
	std::string packet = pattern(10000);
	/* 4096 bytes at first, then 1024 more per round. */
	EXPECT_EQ(packet.substr(0, 4095) + packet.substr(0, 1024) + packet.substr(0, 1024),
			  read_answer({packet, packet, packet}, KAQ_ANSWER_MAX, realloc, SOCK_SEQPACKET));
}

TEST(ReadAnswer, InvalidDescriptorGivesAnEmptyAnswer) {
	EXPECT_EQ("", text_of(kaq_read_answer(-1, KAQ_ANSWER_MAX, realloc)));
}
