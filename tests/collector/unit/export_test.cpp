#include "query/export.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "traces.h"

using namespace kaq;
using nlohmann::json;

namespace {

const std::string kHostile = "</script>\"\\ \x01\xe2\x80\xae"
							 "end";

/* A request with two calls that overlap, and the request that one of them made. */
class Exported : public testing::Test {
protected:
	Transaction shop = request_of(1000, 1500);
	Transaction stock = request_of(1120, 1180);

	void SetUp() override {
		shop.application = "Shop";
		shop.method = "GET";
		shop.name = "/cart/7";
		shop.normalised_name = "/cart/*";
		shop.trace_id = "61c0ffee";
		shop.host = "shop.example";
		shop.status = 500;
		shop.is_web = true;
		shop.parameters.push_back({"item", "1"});
		shop.request_headers.push_back({"Accept", "*"});
		shop.response_headers.push_back({"Age", "1"});
		shop.custom_parameters.push_back({"plan", "free"});
		shop.sums.push_back({"items", 2.5});
		shop.averages.push_back({"size", 3});
		shop.spans[0].id = "aa";
		Span &query = add_span(shop, 0, 1010, 1060, "PDO::query");
		query.component = "PDO";
		query.query = "SELECT ?";
		query.host = "db1";
		query.port = 3306;
		query.database = "shop";
		query.stack.push_back({"Cart", "items", "cart.php", 12});
		Span &call = add_span(shop, 0, 1100, 1200, "curl_exec");
		call.id = "cc";
		call.component = "HTTP";
		call.host = "http://stock/a";
		call.is_external = true;
		call.sent_headers.push_back({"X-A", "1"});
		call.received_headers.push_back({"X-B", "2"});
		Span &other = add_span(shop, 0, 1150, 1300, kHostile);
		other.is_failed = true;
		other.is_async = true;
		other.status = 503;
		other.failures.push_back({"RuntimeException", "a.php", "Error", kHostile, 3, 1290});
		stock.application = "Stock";
		stock.spans[0].id = "dd";
		stock.spans[0].parent_id = "cc";
	}

	void fill_the_rest() {
		for (std::string_view *text : {&shop.application_group, &shop.instance_id,
									   &shop.query_string, &shop.session_id, &shop.flow}) {
			*text = "x";
		}
		shop.bytes_in = shop.bytes_out = shop.thread = 1;
		shop.is_async = true;
	}

	/* The callee first: it is the order of time that counts. */
	ExportedRequests trace() const {
		return {&stock, &shop};
	}
};

/* Balanced, ordered, within the profile's bounds; returns how many frames were opened. */
size_t check_profile(const json &profile, size_t frames) {
	EXPECT_EQ("evented", profile["type"]);
	EXPECT_EQ("milliseconds", profile["unit"]);
	int64_t last = profile["startValue"];
	std::vector<size_t> open;
	size_t opened = 0;
	for (const json &event : profile["events"]) {
		int64_t at = event["at"];
		size_t frame = event["frame"];
		EXPECT_GE(at, last);
		EXPECT_LT(frame, frames);
		last = at;
		if (event["type"] == "O") {
			open.push_back(frame);
			opened++;
		} else {
			EXPECT_EQ("C", event["type"]);
			EXPECT_FALSE(open.empty());
			EXPECT_EQ(open.back(), frame);
			open.pop_back();
		}
	}
	EXPECT_TRUE(open.empty());
	EXPECT_GE(int64_t(profile["endValue"]), last);
	return opened;
}

size_t check_speedscope(const json &file) {
	EXPECT_EQ("https://www.speedscope.app/file-format-schema.json", file["$schema"]);
	size_t opened = 0;
	for (const json &profile : file["profiles"]) {
		opened += check_profile(profile, file["shared"]["frames"].size());
	}
	return opened;
}

/* Slices of one thread lie within each other or beside each other; returns how many there are. */
size_t check_slices(const json &file) {
	std::map<std::pair<int, int>, std::vector<std::pair<int64_t, int64_t>>> threads;
	size_t count = 0;
	for (const json &event : file["traceEvents"]) {
		if (event["ph"] != "X") {
			continue;
		}
		count++;
		int64_t start = event["ts"];
		int64_t end = start + int64_t(event["dur"]);
		auto &open = threads[{event["pid"], event["tid"]}];
		while (!open.empty() && open.back().second <= start &&
			   !(open.back().second == start && end == start && open.back().first < start)) {
			open.pop_back();
		}
		if (!open.empty()) {
			EXPECT_GE(start, open.back().first);
			EXPECT_LE(end, open.back().second);
		}
		open.emplace_back(start, end);
	}
	return count;
}

std::vector<json> events(const json &file, const std::string &phase) {
	std::vector<json> found;
	for (const json &event : file["traceEvents"]) {
		if (event["ph"] == phase) {
			found.push_back(event);
		}
	}
	return found;
}

} // namespace

TEST_F(Exported, AsSpeedscope) {
	json file = json::parse(to_speedscope(trace()));
	EXPECT_EQ(5u, check_speedscope(file));
	EXPECT_EQ("Shop GET /cart/*", file["name"]);
	EXPECT_EQ(0, file["activeProfileIndex"]);
	ASSERT_EQ(3u, file["profiles"].size());
	EXPECT_EQ("Shop GET /cart/*", file["profiles"][0]["name"]);
	EXPECT_EQ("Shop GET /cart/*, in parallel 1", file["profiles"][1]["name"]);
	EXPECT_EQ("Stock", file["profiles"][2]["name"]);
	const json &frames = file["shared"]["frames"];
	EXPECT_EQ("PDO::query: SELECT ?", frames[1]["name"]);
	EXPECT_EQ(kHostile, frames[3]["name"]);
	/* Both roots are called the same. */
	EXPECT_EQ(4u, frames.size());
	EXPECT_EQ((json{{"type", "O"}, {"frame", 1}, {"at", 10}}), file["profiles"][0]["events"][1]);
	EXPECT_EQ((json{{"type", "C"}, {"frame", 1}, {"at", 60}}), file["profiles"][0]["events"][2]);
	EXPECT_EQ(120, file["profiles"][2]["startValue"]);
	EXPECT_EQ(180, file["profiles"][2]["endValue"]);
}

TEST_F(Exported, AsTraceEvents) {
	json file = json::parse(to_trace_events(trace()));
	EXPECT_EQ("ms", file["displayTimeUnit"]);
	EXPECT_EQ(1000, file["otherData"]["start_ms"]);
	EXPECT_EQ(5u, check_slices(file));
	std::vector<json> slices = events(file, "X");
	EXPECT_EQ("PDO::query: SELECT ?", slices[1]["name"]);
	EXPECT_EQ("PDO", slices[1]["cat"]);
	EXPECT_EQ(10000, slices[1]["ts"]);
	EXPECT_EQ(50000, slices[1]["dur"]);
	EXPECT_EQ("SELECT ?", slices[1]["args"]["query"]);
	EXPECT_EQ("shop", slices[1]["args"]["database"]);
	EXPECT_EQ(kHostile, slices[3]["name"]);
	EXPECT_EQ(2, slices[3]["tid"]);
	EXPECT_EQ("RuntimeException: " + kHostile, slices[3]["args"]["errors"][0]);
	EXPECT_EQ(503, slices[3]["args"]["status"]);
	std::vector<std::string> names;
	for (const json &event : events(file, "M")) {
		names.push_back(event["name"].get<std::string>() + " " +
						event["args"]["name"].get<std::string>());
	}
	EXPECT_EQ((std::vector<std::string>{"process_name Shop GET /cart/*", "thread_name request",
										"thread_name request, in parallel 1", "process_name Stock",
										"thread_name request"}),
			  names);
}

TEST_F(Exported, AsTraceEventsWithAnArrowFromCallToRequest) {
	json file = json::parse(to_trace_events(trace()));
	ASSERT_EQ(1u, events(file, "s").size());
	ASSERT_EQ(1u, events(file, "f").size());
	json from = events(file, "s")[0];
	json to = events(file, "f")[0];
	EXPECT_EQ(from["id"], to["id"]);
	EXPECT_EQ(1, from["pid"]);
	EXPECT_EQ(100000, from["ts"]);
	EXPECT_EQ(2, to["pid"]);
	EXPECT_EQ(120000, to["ts"]);
	EXPECT_EQ("e", to["bp"]);
	EXPECT_TRUE(events(json::parse(to_trace_events({&stock})), "s").empty());
}

TEST_F(Exported, AsADocument) {
	json file = json::parse(to_json_document(trace()));
	ASSERT_EQ(2u, file["requests"].size());
	const json &request = file["requests"][0];
	EXPECT_EQ("Shop", request["application"]);
	EXPECT_EQ("/cart/*", request["name"]);
	EXPECT_EQ("shop.example", request["host"]);
	EXPECT_EQ(500, request["duration_ms"]);
	EXPECT_EQ(true, request["failed"]);
	EXPECT_EQ((json{{{"name", "item"}, {"value", "1"}}}), request["parameters"]);
	EXPECT_EQ("Accept", request["request_headers"][0]["name"]);
	EXPECT_EQ("Age", request["response_headers"][0]["name"]);
	EXPECT_EQ("plan", request["custom_parameters"][0]["name"]);
	EXPECT_EQ(2.5, request["sums"][0]["value"]);
	EXPECT_EQ(3, request["averages"][0]["value"]);
	EXPECT_EQ(1, file["requests"][1]["spans"].size());
}

TEST_F(Exported, AsADocumentWithEachSpan) {
	json spans = json::parse(to_json_document(trace()))["requests"][0]["spans"];
	ASSERT_EQ(4u, spans.size());
	EXPECT_EQ((json{{"start_ms", 1000},
					{"duration_ms", 500},
					{"parent", nullptr},
					{"id", "aa"},
					{"name", "main"}}),
			  spans[0]);
	EXPECT_EQ(
		(json{{"start_ms", 1010},
			  {"duration_ms", 50},
			  {"parent", 0},
			  {"name", "PDO::query"},
			  {"component", "PDO"},
			  {"query", "SELECT ?"},
			  {"host", "db1"},
			  {"port", 3306},
			  {"database", "shop"},
			  {"stack",
			   {{{"class", "Cart"}, {"function", "items"}, {"file", "cart.php"}, {"line", 12}}}}}),
		spans[1]);
	EXPECT_EQ(true, spans[2]["external"]);
	EXPECT_EQ("X-A", spans[2]["sent_headers"][0]["name"]);
	EXPECT_EQ("2", spans[2]["received_headers"][0]["value"]);
	EXPECT_EQ(kHostile, spans[3]["name"]);
	EXPECT_EQ(true, spans[3]["failed"]);
	EXPECT_EQ(true, spans[3]["async"]);
	EXPECT_EQ((json{{"type", "RuntimeException"},
					{"message", kHostile},
					{"level", "Error"},
					{"file", "a.php"},
					{"line", 3},
					{"time_ms", 1290}}),
			  spans[3]["errors"][0]);
}

/* The names of all members, however deep. */
void add_names(std::set<std::string> &names, const json &value) {
	if (value.is_object()) {
		for (const auto &member : value.items()) {
			names.insert(member.key());
		}
	}
	for (const json &each : value.is_structured() ? value : json::array()) {
		add_names(names, each);
	}
}

TEST_F(Exported, AsADocumentThatIsDescribed) {
	std::ifstream file(KAQ_EXPORT_DOCUMENT);
	std::stringstream stream;
	stream << file.rdbuf();
	std::string document = stream.str();
	fill_the_rest();
	std::set<std::string> names;
	add_names(names, json::parse(to_json_document(trace()))["requests"]);
	EXPECT_EQ(55u, names.size());
	for (const std::string &name : names) {
		EXPECT_NE(std::string::npos, document.find("`" + name + "`")) << name;
	}
}

TEST(Export, AnyRequestsHaveAllTheirSpans) {
	std::mt19937 random(9);
	for (int i = 0; i < 60; i++) {
		Transaction one = random_request(random);
		Transaction other = random_request(random);
		size_t count = one.spans.size() + other.spans.size();
		ExportedRequests trace = {&one, &other};
		ASSERT_EQ(count, check_speedscope(json::parse(to_speedscope(trace))));
		json slices = json::parse(to_trace_events(trace));
		ASSERT_EQ(count, check_slices(slices));
		ASSERT_FALSE(testing::Test::HasFailure());
	}
}
