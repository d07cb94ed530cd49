#include "wire/sender.h"

#include <errno.h>
#include <fcntl.h>

#include "wire/client.h"
#include "loopback.h"

namespace {

/* What a peer does with its connection; sending is done once `done` is set. */
using Serve = std::function<void(int fd, const std::atomic<bool> &done)>;

/* How many milliseconds sending takes. The peer has ended then. */
long sent_in_ms(const std::string &text, const Serve &serve) {
	std::atomic<bool> done{false};
	Peer peer([&](int fd) { serve(fd, done); });
	Stopwatch watch;
	kaq_send_text("127.0.0.1", peer.port(), text.c_str());
	long taken = watch.ms();
	done = true;
	return taken;
}

void pause_until(int, const std::atomic<bool> &done) {
	while (!done) {
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
}

void expect_a_second(const std::function<long()> &run) {
	expect_duration(KAQ_WRITE_TIMEOUT_MS - 50, KAQ_WRITE_TIMEOUT_MS + 600, run);
}

/* What a peer that reads to the end gets. */
std::string received(const std::string &text) {
	std::string got;
	sent_in_ms(text, [&got](int fd, const std::atomic<bool> &) { got = read_to_end(fd); });
	return got;
}

} // namespace

TEST(SendText, ArrivesWholeAndWithoutTheNul) {
	std::string text = "message:\tNo request URI Found\n";
	EXPECT_EQ(text, received(text));
}

TEST(SendText, LongTextArrivesWhole) {
	std::string text = pattern(5000000);
	EXPECT_TRUE(received(text) == text);
}

TEST(SendText, EmptyTextConnectsAndWritesNothing) {
	int connections = 0;
	std::string got = "unset";
	sent_in_ms("", [&](int fd, const std::atomic<bool> &) {
		connections++;
		got = read_to_end(fd);
	});
	EXPECT_EQ(1, connections);
	EXPECT_EQ("", got);
}

TEST(SendText, NullTextOpensNoConnection) {
	Listener listener;
	kaq_send_text("127.0.0.1", listener.port, nullptr);
	fcntl(listener.fd, F_SETFL, O_NONBLOCK);
	EXPECT_EQ(-1, accept(listener.fd, nullptr, nullptr));
	EXPECT_EQ(EAGAIN, errno);
}

TEST(SendText, AnswerIsIgnored) {
	std::string got;
	sent_in_ms("line\n", [&got](int fd, const std::atomic<bool> &) {
		got = read_line(fd);
		write_all(fd, "an answer that nobody reads");
	});
	EXPECT_EQ("line\n", got);
}

TEST(SendText, NoListenerIsSilent) {
	expect_no_wait([](int port) { kaq_send_text("127.0.0.1", port, "line\n"); });
}

TEST(SendText, PeerThatClosesAtOnceIsSilent) {
	signal(SIGPIPE, SIG_DFL);
	std::string text(50000000, 'x');
	expect_duration(0, 1600,
					[&text] { return sent_in_ms(text, [](int, const std::atomic<bool> &) {}); });
}

TEST(SendText, PeerThatResetsWhileWritingIsSilent) {
	signal(SIGPIPE, SIG_DFL);
	std::string text(50000000, 'x');
	expect_duration(0, 900, [&text] {
		return sent_in_ms(text, [](int fd, const std::atomic<bool> &) {
			char piece[1000];
			EXPECT_GT(recv(fd, piece, sizeof piece, 0), 0);
			reset_on_close(fd);
		});
	});
}

TEST(SendText, ReaderThatNeverReadsCostsOneSecond) {
	std::string text(50000000, 'x');
	expect_a_second([&text] { return sent_in_ms(text, pause_until); });
}

TEST(SendText, SlowReaderCostsOneSecondInAll) {
	std::string text(50000000, 'x');
	expect_a_second([&text] {
		return sent_in_ms(text, [](int fd, const std::atomic<bool> &done) {
			std::string piece(65536, ' ');
			while (!done && recv(fd, &piece[0], piece.size(), 0) > 0) {
				std::this_thread::sleep_for(std::chrono::milliseconds(20));
			}
		});
	});
}

TEST(SendText, ShortWriteIsNotContinuedIsMeant) {
	/* The peer reads on after the time-out, and still gets only what one send had taken. */
	std::string text = pattern(50000000);
	std::string got;
	sent_in_ms(text, [&got](int fd, const std::atomic<bool> &done) {
		pause_until(fd, done);
		got = read_to_end(fd);
	});
	EXPECT_GT(got.size(), 0u);
	EXPECT_LT(got.size(), text.size());
	EXPECT_TRUE(text.compare(0, got.size(), got) == 0);
}

TEST(SendText, LeavesNoDescriptorOpen) {
	int before = open_descriptors();
	for (int i = 0; i < 20; i++) {
		Peer peer([](int fd) { read_to_end(fd); });
		kaq_send_text("127.0.0.1", peer.port(), "line\n");
		kaq_send_text("127.0.0.1", closed_port(), "line\n");
		kaq_send_text("127.0.0.1", 0, "line\n");
	}
	EXPECT_EQ(before, open_descriptors());
}

TEST(SendText, WithoutAFreeDescriptorIsSilent) {
	Listener listener;
	{
		NoFreeDescriptor none;
		EXPECT_EQ(-1, kaq_open_socket());
		kaq_send_text("127.0.0.1", listener.port, "line\n");
	}
	fcntl(listener.fd, F_SETFL, O_NONBLOCK);
	EXPECT_EQ(-1, accept(listener.fd, nullptr, nullptr));
}
