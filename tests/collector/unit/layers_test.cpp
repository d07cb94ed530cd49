#include "analysis/layers.h"

#include <gtest/gtest.h>

#include <limits>

#include "requests.h"

using kaq::Layer;
using kaq::Transaction;

TEST(LayerOf, ComponentsOfTheExtension) {
	EXPECT_EQ(Layer::kCode, kaq::layer_of("PHP"));
	EXPECT_EQ(Layer::kCode, kaq::layer_of(""));
	for (const char *name :
		 {"PDO", "MySQL", "MySQLi", "Postgres", "Oracle", "MSSQL", "Cassandra"}) {
		EXPECT_EQ(Layer::kDatabase, kaq::layer_of(name)) << name;
	}
	for (const char *name : {"Redis", "Memcache", "Memcached"}) {
		EXPECT_EQ(Layer::kCache, kaq::layer_of(name)) << name;
	}
	EXPECT_EQ(Layer::kHttp, kaq::layer_of("HTTP"));
	EXPECT_EQ(Layer::kOther, kaq::layer_of("DNS"));
}

TEST(LayerOf, StatementMakesAnUnknownComponentADatabase) {
	kaq::Span span;
	span.component = "DuckDB";
	EXPECT_EQ(Layer::kOther, kaq::layer_of(span));
	span.query = "SELECT 1";
	EXPECT_EQ(Layer::kDatabase, kaq::layer_of(span));
	span.component = "Redis";
	EXPECT_EQ(Layer::kCache, kaq::layer_of(span));
}

TEST(SelfTime, IsWhatInnerCallsLeave) {
	Transaction t =
		Request("/").works(5).open("a").works(10).query("SELECT 1", 30).works(2).close().done();
	EXPECT_EQ((std::vector<int64_t>{5, 12, 30}), self_times(t));
}

/* Two transfers of 100 and 80 ms end while a loop of 120 ms drives them. */
Transaction with_transfers() {
	Request request("/");
	request.open("Client::wait").works(10).waits(100);
	request.open("curl_multi_exec", "HTTP").waits(10);
	request.transfer("http://a/", 100).transfer("http://b/", 80);
	return request.done();
}

TEST(SelfTime, CodeDoesNotOwnWhatTransfersBesideItTake) {
	Transaction t = with_transfers();
	/* Of 120 ms the longer transfer covers the last 100. */
	EXPECT_EQ((std::vector<int64_t>{0, 20, 0, 100, 80}), self_times(t));
}

TEST(SelfTime, OutlastsNothing) {
	Transaction t = Request("/").open("a").works(10).done();
	t.spans[1].end = std::numeric_limits<int64_t>::max();
	t.spans[1].start = std::numeric_limits<int64_t>::min();
	std::vector<int64_t> times = self_times(t);
	EXPECT_EQ(0, times[0]);
	EXPECT_EQ(kaq::kLongestDuration, times[1]);
	EXPECT_EQ(10, layer_times(t)[0]);
}

TEST(LayerTime, InnerCallsBelongToTheCallAroundThem) {
	Request request("/");
	request.works(7).open("PDO::query", "PDO").waits(20);
	request.open("sql_function").works(5).cache("redis::get", 3).close().waits(2).close();
	request.cache("redis::get", 4);
	kaq::LayerTimes times = layer_times(request.done());
	EXPECT_EQ(7, time_of(times, Layer::kCode));
	EXPECT_EQ(30, time_of(times, Layer::kDatabase));
	EXPECT_EQ(4, time_of(times, Layer::kCache));
}

TEST(LayerTime, CallsThatOverlapCountOnce) {
	kaq::LayerTimes times = layer_times(with_transfers());
	EXPECT_EQ(100, time_of(times, Layer::kHttp));
	EXPECT_EQ(20, time_of(times, Layer::kCode));
}

TEST(Caller, IsTheNearestUserCode) {
	Request request("/");
	request.query("SELECT 1", 1);
	request.open("a").open("PDO::query", "PDO").open("redis::get", "Redis");
	Transaction t = request.done();
	EXPECT_EQ((std::vector<int32_t>{0, 0, 0, 2, 2}), callers_of(t.spans));
}
