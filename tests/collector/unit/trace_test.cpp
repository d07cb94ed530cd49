#include "analysis/trace.h"

#include <gtest/gtest.h>

#include <limits>

#include "requests.h"

using kaq::assemble_trace;
using kaq::PathStep;
using kaq::Trace;
using kaq::Transaction;

constexpr int64_t kStart = 1795264027000;

/* Ids that are the service's own; called by the span `caller`. */
Transaction service(std::string_view name, Request &request, std::string_view caller = "",
					int64_t at = 0) {
	std::string prefix(name);
	std::string parent(caller);
	Transaction t = request.done();
	t.application = t.texts.keep(name);
	for (kaq::Span &span : t.spans) {
		span.id = t.texts.keep(prefix + std::string(span.id));
		span.start += at;
		span.end += at;
	}
	t.spans.front().parent_id = t.texts.keep(parent);
	t.start += at;
	t.end += at;
	return t;
}

/* "request.span from..to", times from the beginning of the trace. */
std::vector<std::string> path_of(const Trace &trace) {
	std::vector<std::string> texts;
	int64_t start = trace.critical_path.front().from;
	for (const PathStep &step : trace.critical_path) {
		texts.push_back(std::to_string(step.request) + "." + std::to_string(step.span) + " " +
						std::to_string(step.from - start) + ".." + std::to_string(step.to - start));
	}
	return texts;
}

/* The shop works for 10 ms, asks the stock for 50, and works for 5. */
Transaction shop() {
	Request request("/cart");
	request.works(10).open("curl_exec", "HTTP").last().is_external = true;
	request.waits(50).close().works(5);
	return service("shop-", request);
}

Transaction stock(int64_t at, int64_t ms = 30) {
	Request request("/stock");
	request.works(ms - 20).query("SELECT 1", 20);
	return service("stock-", request, "shop-span1", at);
}

TEST(Trace, JoinsACalleeUnderItsCall) {
	Transaction caller = shop(), callee = stock(20);
	Trace trace = assemble_trace({&callee, &caller});
	ASSERT_EQ(2u, trace.requests.size());
	EXPECT_EQ(&caller, trace.requests[0].transaction);
	EXPECT_EQ(-1, trace.requests[0].caller_request);
	EXPECT_EQ(&callee, trace.requests[1].transaction);
	EXPECT_EQ(0, trace.requests[1].caller_request);
	EXPECT_EQ(1, trace.requests[1].caller_span);
	EXPECT_EQ(0, trace.requests[1].shift);
	EXPECT_EQ((std::vector<std::string>{"0.0 0..10", "0.1 10..20", "1.0 20..30", "1.1 30..50",
										"0.1 50..60", "0.0 60..65"}),
			  path_of(trace));
}

TEST(Trace, ClampsACalleeIntoItsCall) {
	Transaction caller = shop();
	/* The call runs from 10 to 60. */
	for (auto [at, ms, shift] : {std::tuple{10, 30, 0},
								 {30, 30, 0},
								 {9, 30, 1},
								 {31, 30, -1},
								 {-4000, 30, 4010},
								 {5000, 30, -4970},
								 {10, 51, 0},
								 {12, 60, -2}}) {
		Transaction callee = stock(at, ms);
		Trace trace = assemble_trace({&caller, &callee});
		EXPECT_EQ(shift, trace.requests[1].shift) << at;
	}
}

TEST(Trace, ShiftOfACallerMovesThoseItCalled) {
	Transaction caller = shop();
	Request request("/stock");
	request.works(5).open("curl_exec", "HTTP").waits(20).close().works(5);
	Transaction second = service("stock-", request, "shop-span1", 1000);
	Request inner("/price");
	inner.works(20);
	Transaction third = service("price-", inner, "stock-span1", 1005);
	Trace trace = assemble_trace({&third, &second, &caller});
	ASSERT_EQ(3u, trace.requests.size());
	EXPECT_EQ(-970, trace.requests[1].shift);
	EXPECT_EQ(-970, trace.requests[2].shift);
	EXPECT_EQ(1, trace.requests[2].caller_request);
	EXPECT_EQ("2.0 35..55", path_of(trace)[3]);
}

TEST(Trace, CriticalPathIsOfWhatEndsLast) {
	Request request("/");
	request.open("Client::all").works(5).waits(100).open("curl_multi_exec", "HTTP").works(2);
	request.transfer("http://a/", 90).transfer("http://b/", 60).close().close().works(10);
	Transaction t = request.done();
	/* The transfer over 90 ms started before the poll that reported it. */
	EXPECT_EQ((std::vector<std::string>{"0.1 0..17", "0.3 17..107", "0.0 107..117"}),
			  path_of(assemble_trace({&t})));
}

TEST(Trace, CriticalPathHasNoGap) {
	Request request("/");
	for (int i = 0; i < 50; i++) {
		request.works(i % 3).open("f").query("SELECT 1", i % 5).works(i % 2);
		if (i % 4 == 0) {
			request.close();
		}
	}
	Transaction t = request.done();
	Trace trace = assemble_trace({&t});
	int64_t at = t.spans.front().start;
	for (const PathStep &step : trace.critical_path) {
		EXPECT_EQ(at, step.from);
		EXPECT_LT(step.from, step.to);
		at = step.to;
	}
	EXPECT_EQ(t.spans.front().end, at);
}

TEST(Trace, CallersInARingAreCutWhereItBegan) {
	Request one("/a"), other("/b");
	Transaction a = service("a-", one.works(5), "b-span0");
	Transaction b = service("b-", other.works(5), "a-span0", 1);
	Trace trace = assemble_trace({&b, &a});
	ASSERT_EQ(2u, trace.requests.size());
	EXPECT_EQ(&a, trace.requests[0].transaction);
	EXPECT_EQ(-1, trace.requests[0].caller_request);
	EXPECT_EQ(-1, trace.requests[0].caller_span);
	EXPECT_EQ(0, trace.requests[1].caller_request);
}

TEST(Trace, UnknownAndOwnCallersMakeATop) {
	Request one("/a"), other("/b");
	Transaction a = service("a-", one.works(5), "nobody");
	Transaction b = service("b-", other.works(5), "b-span0", 1);
	Trace trace = assemble_trace({&a, &b});
	EXPECT_EQ(-1, trace.requests[0].caller_request);
	EXPECT_EQ(-1, trace.requests[1].caller_request);
}

/* What both processes have done before the fork, then what each does. */
Transaction process(int64_t thread, std::string_view does, int64_t ms) {
	Request request("job.php", false);
	request.works(5).runs("Job::load", 20).open("Job::fork").works(3).query("SELECT 1", 4);
	request.runs(does, ms).close();
	std::string prefix = "p" + std::to_string(thread) + "-";
	Transaction t = service(prefix, request);
	t.application = "Jobs";
	t.thread = thread;
	return t;
}

TEST(Trace, RepeatedSpansOfAForkedChildAreKnown) {
	Transaction parent = process(100, "Job::wait", 90);
	Transaction child = process(101, "Job::work", 80);
	Trace trace = assemble_trace({&child, &parent});
	ASSERT_EQ(2u, trace.requests.size());
	EXPECT_EQ(&parent, trace.requests[0].transaction);
	EXPECT_EQ(-1, trace.requests[0].forked_from);
	EXPECT_FALSE(trace.requests[0].repeats(1));
	EXPECT_EQ(0, trace.requests[1].forked_from);
	/* main, Job::load, Job::fork, its statement, Job::work */
	EXPECT_EQ((std::vector<bool>{false, true, false, true, false}), trace.requests[1].is_repeated);
	EXPECT_TRUE(trace.requests[1].repeats(3));
}

TEST(Trace, NothingIsRepeatedBehindTheFork) {
	Transaction parent = process(100, "Job::wait", 90);
	Transaction child = process(101, "Job::work", 80);
	/* By chance both make a call at the same time later on. */
	for (Transaction *each : {&parent, &child}) {
		kaq::Span same = each->spans[3];
		same.start = same.end = kStart + 60;
		same.parent = 2;
		each->spans.push_back(same);
	}
	Trace trace = assemble_trace({&parent, &child});
	EXPECT_FALSE(trace.requests[1].repeats(5));
}

TEST(Trace, RequestsOfOneMomentAreNoFork) {
	Transaction parent = process(100, "a", 90), other = process(101, "b", 80);
	other.spans.front().parent_id = "p100-span1";
	Trace trace = assemble_trace({&parent, &other});
	EXPECT_EQ(-1, trace.requests[1].forked_from);
	EXPECT_EQ(1, trace.requests[1].caller_span);
}

TEST(Trace, HostileTimesAndDepthAreSurvived) {
	constexpr int64_t kFirst = std::numeric_limits<int64_t>::min();
	constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
	for (auto [start, end] : {std::pair{kFirst, kLast},
							  {kLast, kFirst},
							  {kFirst, kFirst},
							  {kLast, kLast},
							  {int64_t{0}, kLast}}) {
		Transaction caller = shop(), callee = stock(0);
		callee.spans.front().start = start;
		callee.spans.front().end = end;
		EXPECT_EQ(2u, assemble_trace({&caller, &callee}).requests.size());
		std::swap(caller.spans[1].start, callee.spans.front().start);
		std::swap(caller.spans[1].end, callee.spans.front().end);
		EXPECT_EQ(2u, assemble_trace({&caller, &callee}).requests.size());
	}
	Request request("/");
	for (int i = 0; i < 50000; i++) {
		request.open("f").works(1);
	}
	Transaction deep = request.done();
	EXPECT_EQ(50000u, assemble_trace({&deep}).critical_path.size());
	EXPECT_TRUE(assemble_trace({}).requests.empty());
}
