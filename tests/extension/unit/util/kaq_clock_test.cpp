#include "util/kaq_clock.h"

#include <set>
#include <sys/time.h>
#include <thread>
#include <time.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

uint64_t wall_ms() {
	timeval now;
	gettimeofday(&now, nullptr);
	return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_usec / 1000;
}

struct Comparison {
	uint64_t calls = 0;
	uint64_t readings = 0; /* of the clock, seen by the thread's record being renewed */
	uint64_t wrong = 0;
	uint64_t backwards = 0;
	std::set<uint64_t> distinct;
};

/* Milliseconds that a comparison must have seen to mean anything. */
const size_t ENOUGH = 60;

/*
 * Compares each value with the plain clock before and after it for `duration_ms`, or longer where
 * other programs left this one too few milliseconds.
 */
Comparison compare_with_plain_clock(uint64_t duration_ms) {
	Comparison run;
	uint64_t start = kaq_monotonic_ms();
	uint64_t last = 0;
	do {
		uint64_t reading = kaq_clock_thread.cycles;
		uint64_t before = wall_ms();
		uint64_t value = kaq_now_ms();
		uint64_t after = wall_ms();
		run.calls++;
		run.readings += kaq_clock_thread.cycles != reading;
		run.wrong += value < before || value > after;
		run.backwards += value < last;
		run.distinct.insert(value);
		last = value;
	} while (kaq_monotonic_ms() - start < duration_ms ||
			 (run.distinct.size() < ENOUGH && kaq_monotonic_ms() - start < 10000));
	return run;
}

void wait_for_gate() {
	kaq_clock_use_gate(1);
	kaq_clock_startup();
	uint64_t start = kaq_monotonic_ms();
	while (!kaq_clock_gate_ready() && kaq_monotonic_ms() - start < 10000) {
		kaq_now_ms();
	}
}

#define NEED_GATE()                                                          \
	wait_for_gate();                                                         \
	if (!kaq_clock_gate_ready()) {                                           \
		GTEST_SKIP() << "this machine's cycle counter is not to be trusted"; \
	}

const uint64_t GHZ3 = 3000000; /* cycles per millisecond */

} // namespace

TEST(Clock, WithoutStartupTheClockIsReadEveryTime) {
	static bool first_round = true;
	if (!first_round) {
		GTEST_SKIP() << "only the first round of a process is without startup";
	}
	first_round = false;
	Comparison run = compare_with_plain_clock(100);
	EXPECT_EQ(0, kaq_clock_gate_ready());
	EXPECT_EQ(0u, run.wrong);
	EXPECT_EQ(run.calls, run.readings);
}

TEST(Clock, WithTheGateEveryValueIsRight) {
	NEED_GATE();
	Comparison run = compare_with_plain_clock(300);
	EXPECT_EQ(0u, run.wrong);
	EXPECT_EQ(0u, run.backwards);
	EXPECT_GE(run.distinct.size(), ENOUGH);
}

TEST(Clock, WithTheGateTheClockIsSeldomRead) {
	NEED_GATE();
	Comparison run = compare_with_plain_clock(300);
	EXPECT_LT(run.readings * 10, run.calls);
	EXPECT_GE(run.readings, run.distinct.size() - 1);
}

TEST(Clock, WithoutTheGateEveryValueIsRight) {
	kaq_clock_startup();
	kaq_clock_use_gate(0);
	Comparison run = compare_with_plain_clock(300);
	EXPECT_EQ(0, kaq_clock_gate_ready());
	EXPECT_EQ(0u, run.wrong);
	EXPECT_EQ(0u, run.backwards);
	EXPECT_EQ(run.calls, run.readings);
	EXPECT_GE(run.distinct.size(), ENOUGH);
	kaq_clock_use_gate(1);
}

TEST(Clock, EveryThreadIsRightWhileTheRateIsBeingMeasured) {
	kaq_clock_use_gate(1);
	kaq_clock_startup();
	std::vector<Comparison> runs(4);
	std::vector<std::thread> threads;
	for (Comparison &run : runs) {
		threads.emplace_back([&run] { run = compare_with_plain_clock(300); });
	}
	for (std::thread &thread : threads) {
		thread.join();
	}
	for (const Comparison &run : runs) {
		EXPECT_EQ(0u, run.wrong);
		EXPECT_EQ(0u, run.backwards);
		EXPECT_GE(run.distinct.size(), ENOUGH);
	}
}

TEST(Clock, ThreadThatDidNotStartTheModuleMeasuresToo) {
	kaq_clock_use_gate(1);
	kaq_clock_startup();
	int ready = 0;
	int ready_before = kaq_clock_gate_ready();
	std::thread([&ready] {
		uint64_t start = kaq_monotonic_ms();
		while (!ready && kaq_monotonic_ms() - start < 10000) {
			kaq_now_ms();
			ready = kaq_clock_gate_ready();
		}
	}).join();
	EXPECT_EQ(0, ready_before);
	NEED_GATE();
	EXPECT_EQ(1, ready);
}

TEST(Clock, MeasuredRateIsALowerBoundOfTheTrueOne) {
	NEED_GATE();
	timespec pause = {0, 100000000};
	timespec first;
	timespec second;
	uint64_t cycles = __builtin_ia32_rdtsc();
	clock_gettime(CLOCK_MONOTONIC, &first);
	nanosleep(&pause, nullptr);
	clock_gettime(CLOCK_MONOTONIC, &second);
	cycles = __builtin_ia32_rdtsc() - cycles;
	uint64_t elapsed =
		(uint64_t)((second.tv_sec - first.tv_sec) * 1000000000L + (second.tv_nsec - first.tv_nsec));
	double per_ms = (double)cycles * 1e6 / (double)elapsed;
	/* A record renewed at the very start of a millisecond holds for the longest time. */
	uint64_t longest = 0;
	for (uint64_t start = kaq_monotonic_ms(); kaq_monotonic_ms() - start < 50;) {
		kaq_now_ms();
		longest = kaq_clock_thread.valid > longest ? kaq_clock_thread.valid : longest;
	}
	EXPECT_GT(longest, 0u);
	EXPECT_LT((double)longest, per_ms * 0.91);
}

TEST(Clock, CounterThatRanBackwardsReadsTheClock) {
	NEED_GATE();
	kaq_now_ms();
	kaq_clock_thread.cycles = __builtin_ia32_rdtsc() + 1000000000000;
	kaq_clock_thread.valid = 1000000;
	kaq_clock_thread.ms = 42;
	EXPECT_NE(42u, kaq_now_ms());
}

TEST(ClockDeadline, NineTenthsOfTheRest) {
	EXPECT_EQ(2697300u, kaq_clock_deadline_cycles(0, GHZ3));
	EXPECT_EQ(1347300u, kaq_clock_deadline_cycles(500000, GHZ3));
	EXPECT_EQ(27000u - 2700u, kaq_clock_deadline_cycles(990000, GHZ3));
}

TEST(ClockDeadline, LastMicrosecondHoldsForNothing) {
	EXPECT_GT(kaq_clock_deadline_cycles(998000, GHZ3), 0u);
	EXPECT_EQ(0u, kaq_clock_deadline_cycles(999000, GHZ3));
	EXPECT_EQ(0u, kaq_clock_deadline_cycles(999999, GHZ3));
}

TEST(ClockDeadline, UnknownRateHoldsForNothing) {
	EXPECT_EQ(0u, kaq_clock_deadline_cycles(0, 0));
}

TEST(ClockDeadline, NeverReachesTheEndOfTheMillisecond) {
	for (uint64_t ns = 0; ns < 1000000; ns += 97) {
		uint64_t left = (1000000 - ns) * GHZ3 / 1000000;
		ASSERT_LT(kaq_clock_deadline_cycles(ns, GHZ3), left);
	}
}

TEST(ClockRate, CyclesPerMillisecond) {
	EXPECT_EQ(GHZ3, kaq_clock_rate(10000000, 1000, 1000, 30001000, 30001000));
	EXPECT_EQ(GHZ3, kaq_clock_rate(5000000, 1000, 1000, 15001000, 15001000));
}

TEST(ClockRate, SlowReadingsOnlyLowerTheBound) {
	uint64_t rate = kaq_clock_rate(10000000, 1000, 101000, 30001000, 30101000);
	EXPECT_EQ(2990000u, rate);
}

TEST(ClockRate, ReadingsThatAreTooSlowDoNotServe) {
	EXPECT_EQ(0u, kaq_clock_rate(10000000, 1000, 1001000, 30001000, 30001000));
	EXPECT_EQ(0u, kaq_clock_rate(10000000, 1000, 1000, 30001000, 31001000));
}

TEST(ClockRate, PointsTooCloseOrTooFarDoNotServe) {
	EXPECT_EQ(0u, kaq_clock_rate(4999999, 1000, 1000, 15001000, 15001000));
	EXPECT_NE(0u, kaq_clock_rate(1000000000, 1000, 1000, 3000001000, 3000001000));
	EXPECT_EQ(0u, kaq_clock_rate(1000000001, 1000, 1000, 3000001000, 3000001000));
}

TEST(ClockRate, CounterThatRanBackwardsDoesNotServe) {
	EXPECT_EQ(0u, kaq_clock_rate(10000000, 30001000, 30001000, 1000, 1000));
	EXPECT_EQ(0u, kaq_clock_rate(10000000, 2000, 1000, 30001000, 30001000));
	EXPECT_EQ(0u, kaq_clock_rate(10000000, 1000, 1000, 30001000, 30000000));
}

TEST(ClockMs, EachPartIsTruncated) {
	EXPECT_EQ(0u, kaq_ms_of(0, 999));
	EXPECT_EQ(1u, kaq_ms_of(0, 1999));
	EXPECT_EQ(1700000000999u, kaq_ms_of(1700000000, 999999));
	EXPECT_EQ(UINT64_C(4294967296000), kaq_ms_of(UINT64_C(4294967296), 0));
}

TEST(WallClock, AgreesWithThePlainClock) {
	uint64_t sec = 0;
	uint64_t usec = 0;
	uint64_t before = wall_ms();
	kaq_wall_clock(&sec, &usec);
	uint64_t after = wall_ms();
	EXPECT_LT(usec, 1000000u);
	EXPECT_GE(kaq_ms_of(sec, usec), before);
	EXPECT_LE(kaq_ms_of(sec, usec), after);
}
