#include "wire/sender.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>

#include "wire/client.h"
#include "loopback.h"

static long sent_in_ms(const Peer &peer, const std::string &text) {
	Stopwatch watch;
	kaq_send_text("127.0.0.1", peer.port(), text.c_str());
	return watch.ms();
}

TEST(SendText, ArrivesWholeAndWithoutTheNul) {
	std::string got;
	{
		Peer peer([&got](int fd) { got = read_to_end(fd); });
		kaq_send_text("127.0.0.1", peer.port(), "message:\tNo request URI Found\n");
	}
	EXPECT_EQ("message:\tNo request URI Found\n", got);
}

TEST(SendText, LongTextArrivesWhole) {
	std::string text = pattern(5000000);
	std::string got;
	{
		Peer peer([&got](int fd) { got = read_to_end(fd); });
		kaq_send_text("127.0.0.1", peer.port(), text.c_str());
	}
	EXPECT_TRUE(got == text);
}

TEST(SendText, EmptyTextConnectsAndWritesNothing) {
	int connections = 0;
	std::string got = "unset";
	{
		Peer peer([&](int fd) {
			connections++;
			got = read_to_end(fd);
		});
		kaq_send_text("127.0.0.1", peer.port(), "");
	}
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
	{
		Peer peer([&got](int fd) {
			got = read_line(fd);
			write_all(fd, "an answer that nobody reads");
		});
		kaq_send_text("127.0.0.1", peer.port(), "line\n");
	}
	EXPECT_EQ("line\n", got);
}

TEST(SendText, NoListenerIsSilent) {
	expect_duration(0, 200, [] {
		int port = closed_port();
		Stopwatch watch;
		kaq_send_text("127.0.0.1", port, "line\n");
		return watch.ms();
	});
}

TEST(SendText, PeerThatClosesAtOnceIsSilent) {
	signal(SIGPIPE, SIG_DFL);
	std::string text(50000000, 'x');
	expect_duration(0, 1600, [&text] {
		Peer peer([](int) {});
		return sent_in_ms(peer, text);
	});
}

TEST(SendText, PeerThatResetsWhileWritingIsSilent) {
	signal(SIGPIPE, SIG_DFL);
	std::string text(50000000, 'x');
	expect_duration(0, 900, [&text] {
		Peer peer([](int fd) {
			char piece[1000];
			EXPECT_GT(recv(fd, piece, sizeof piece, 0), 0);
			reset_on_close(fd);
		});
		return sent_in_ms(peer, text);
	});
}

TEST(SendText, ReaderThatNeverReadsCostsOneSecond) {
	std::string text(50000000, 'x');
	expect_duration(KAQ_WRITE_TIMEOUT_MS - 50, KAQ_WRITE_TIMEOUT_MS + 600, [&text] {
		std::atomic<bool> done{false};
		Peer peer([&done](int) {
			while (!done) {
				std::this_thread::sleep_for(std::chrono::milliseconds(5));
			}
		});
		long elapsed = sent_in_ms(peer, text);
		done = true;
		return elapsed;
	});
}

TEST(SendText, SlowReaderCostsOneSecondInAll) {
	std::string text(50000000, 'x');
	expect_duration(KAQ_WRITE_TIMEOUT_MS - 50, KAQ_WRITE_TIMEOUT_MS + 600, [&text] {
		std::atomic<bool> done{false};
		Peer peer([&done](int fd) {
			std::string piece(65536, ' ');
			while (!done && recv(fd, &piece[0], piece.size(), 0) > 0) {
				std::this_thread::sleep_for(std::chrono::milliseconds(20));
			}
		});
		long elapsed = sent_in_ms(peer, text);
		done = true;
		return elapsed;
	});
}

TEST(SendText, ShortWriteIsNotContinuedIsMeant) {
	/* The peer reads on after the time-out, and still gets only what one send had taken. */
	std::string text = pattern(50000000);
	std::string got;
	std::atomic<bool> done{false};
	{
		Peer peer([&](int fd) {
			while (!done) {
				std::this_thread::sleep_for(std::chrono::milliseconds(5));
			}
			got = read_to_end(fd);
		});
		kaq_send_text("127.0.0.1", peer.port(), text.c_str());
		done = true;
	}
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
	rlimit old;
	ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
	Listener listener;
	int lowest = dup(listener.fd);
	close(lowest);
	rlimit none = {(rlim_t)lowest, old.rlim_max};
	ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
	int fd = kaq_open_socket();
	kaq_send_text("127.0.0.1", listener.port, "line\n");
	setrlimit(RLIMIT_NOFILE, &old);
	EXPECT_EQ(-1, fd);
	fcntl(listener.fd, F_SETFL, O_NONBLOCK);
	EXPECT_EQ(-1, accept(listener.fd, nullptr, nullptr));
}
