/* The handshake port and what looks after it. */
#include "net/handshake_server.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <mutex>

#include "net/handshake_probe.h"
#include "util/watchdog.h"

using kaq::HandshakeAnswer;
using kaq::HandshakeRequest;
using kaq::HandshakeServer;
using kaq::ListenPlace;
using kaq::measure_handshake;
using kaq::Watchdog;
using std::chrono::milliseconds;

/* Answers once it is let go. */
class Gate {
public:
	void open() {
		std::lock_guard lock(mutex_);
		is_open_ = true;
		changed_.notify_all();
	}
	void pass() {
		std::unique_lock lock(mutex_);
		changed_.wait(lock, [this] { return is_open_; });
	}

private:
	std::mutex mutex_;
	std::condition_variable changed_;
	bool is_open_ = false;
};

class GatedPolicy : public kaq::HandshakePolicy {
public:
	explicit GatedPolicy(Gate &gate) : gate_(gate) {
	}
	HandshakeAnswer answer(const HandshakeRequest &) override {
		gate_.pass();
		return {};
	}

private:
	Gate &gate_;
};

/* Ends the test's process, and says so, where a thread would wait for ever. */
class Deadline {
public:
	Deadline() {
		alarm(30);
	}
	~Deadline() {
		alarm(0);
	}
};

TEST(HandshakeServer, IsMeasuredAsPhpFindsIt) {
	Deadline deadline;
	Gate gate;
	gate.open();
	HandshakeServer server(ListenPlace(), std::make_unique<GatedPolicy>(gate));
	server.start();
	std::optional<std::chrono::microseconds> time = measure_handshake("127.0.0.1", server.port());
	ASSERT_TRUE(time);
	EXPECT_GT(time->count(), 0);
	EXPECT_LE(*time, std::chrono::seconds(1));
	EXPECT_EQ(1u, server.counts().answered);
}

TEST(HandshakeServer, SilenceAndRefusalHaveNoLatency) {
	Deadline deadline;
	Gate gate;
	uint16_t port;
	{
		HandshakeServer server(ListenPlace(), std::make_unique<GatedPolicy>(gate));
		port = server.port();
		server.start();
		EXPECT_FALSE(measure_handshake("127.0.0.1", port));
		gate.open();
	}
	EXPECT_FALSE(measure_handshake("127.0.0.1", port));
	EXPECT_FALSE(measure_handshake("localhost", port));
}

TEST(HandshakeServer, TheProbeKeepsWhatItMeasured) {
	Deadline deadline;
	Gate gate;
	gate.open();
	HandshakeServer server(ListenPlace(), std::make_unique<GatedPolicy>(gate));
	server.start();
	kaq::HandshakeProbe probe("127.0.0.1", server.port(), milliseconds(1));
	while (probe.latency().measured < 20) {
		std::this_thread::sleep_for(milliseconds(5));
	}
	kaq::HandshakeLatency latency = probe.latency();
	EXPECT_EQ(0u, latency.failed);
	EXPECT_GT(latency.p50.count(), 0);
	EXPECT_GE(latency.p99, latency.p50);
}

TEST(HandshakeServer, ListensOnSeveralAddresses) {
	Deadline deadline;
	Gate gate;
	gate.open();
	ListenPlace place;
	place.addresses = {"127.0.0.1", "127.0.0.2"};
	HandshakeServer server(place, std::make_unique<GatedPolicy>(gate));
	server.start();
	EXPECT_TRUE(measure_handshake("127.0.0.1", server.port()));
	EXPECT_TRUE(measure_handshake("127.0.0.2", server.port()));
	EXPECT_FALSE(measure_handshake("127.0.0.3", server.port()));
	server.stop_listening();
	EXPECT_TRUE(server.drain(std::chrono::seconds(5)));
	EXPECT_FALSE(measure_handshake("127.0.0.2", server.port()));
}

TEST(Watchdog, AThreadThatWorksIsLeftAlone) {
	Deadline deadline;
	std::atomic<int> alive{0};
	std::atomic<int> stalled{0};
	std::atomic<uint64_t> beats{0};
	{
		Watchdog watchdog(
			{milliseconds(1), 2}, [&] { return ++beats; }, [&] { alive++; }, [&] { stalled++; });
		while (alive < 50) {
			std::this_thread::sleep_for(milliseconds(1));
		}
	}
	EXPECT_EQ(0, stalled);
}

TEST(Watchdog, AHandshakeThreadThatStandsStillIsNoticed) {
	Deadline deadline;
	Gate gate;
	Gate noticed;
	HandshakeServer server(ListenPlace(), std::make_unique<GatedPolicy>(gate));
	server.start();
	std::atomic<int> stalled{0};
	Watchdog watchdog(
		{milliseconds(250), 8}, [&] { return server.beats(); }, [] {},
		[&] {
			stalled++;
			noticed.open();
		});
	EXPECT_FALSE(measure_handshake("127.0.0.1", server.port()));
	noticed.pass();
	gate.open();
	EXPECT_EQ(1, stalled);
}
