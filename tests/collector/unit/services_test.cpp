#include "query/service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <ostream>
#include <set>

#include "model/document.h"
#include "records.h"
#include "requests.h"
#include "store/sqlite_store.h"
#include "util/compression.h"

namespace {

using namespace kaq;
using kaq_test::Directory;
using kaq_test::id_of;
using kaq_test::record;
using nlohmann::json;

constexpr int64_t kNow = 1795264100000; /* after what requests.h writes */

class ServicesTest : public testing::Test {
protected:
	ServicesTest() : store_(settings()) {
	}

	SqliteSettings settings() {
		SqliteSettings settings;
		settings.directory = directory_.path();
		settings.clock = [] { return kNow; };
		settings.documents.keeps_all = true;
		return settings;
	}

	Answer ask(const std::string &method, const std::string &path,
			   std::map<std::string, std::string> parameters = {}) {
		store_.flush();
		const Service *service = find_service(method, path);
		EXPECT_NE(service, nullptr) << path;
		return answer_of(*service, context_, {std::move(parameters)});
	}

	/* The body of an answer that has to be good. */
	json get(const std::string &path, std::map<std::string, std::string> parameters = {}) {
		Answer answer = ask("GET", path, std::move(parameters));
		EXPECT_EQ(answer.status, 200) << text_of(answer);
		return answer.text.empty() ? answer.body : json::parse(answer.text);
	}

	void put(Record record) {
		store_.put(std::move(record));
	}

	/* With its document; the root gets the id. */
	void put(Transaction transaction, const std::string &id, Serving serving = Serving::kUnknown) {
		transaction.spans.front().id = transaction.texts.keep(id);
		transaction.application = "shop";
		Record record = record_of(transaction);
		record.serving = serving;
		record.document = compressor_.compress(to_document(transaction));
		store_.put(std::move(record));
	}

	std::vector<std::string> found(std::map<std::string, std::string> parameters) {
		std::vector<std::string> ids;
		json answer = get("/api/v1/requests", std::move(parameters));
		for (const json &request : answer.at("requests")) {
			ids.push_back(request.at("id"));
		}
		return ids;
	}

	Directory directory_;
	SqliteStore store_;
	Compressor compressor_;
	ServiceContext context_{store_, [] { return kNow; }, nullptr, nullptr};
};

Transaction cart(int64_t items) {
	Request request("/cart");
	request.open("Cart::items");
	for (int64_t i = 0; i < items; i++) {
		request.query("SELECT a FROM item WHERE id=" + std::to_string(i), 8);
	}
	return request.close().runs("render", 20).done();
}

using Ids = std::vector<std::string>;

TEST_F(ServicesTest, FindsByEachParameter) {
	Record slow = record(1, kNow - 5000);
	slow.summary.duration = 900;
	Record other = record(2, kNow - 4000);
	other.summary.application = "blog";
	put(slow);
	put(other);
	put(record(3, kNow - 3000));
	EXPECT_EQ(found({}), (Ids{id_of(3), id_of(2), id_of(1)}));
	EXPECT_EQ(found({{"q", ">500ms"}}), Ids{id_of(1)});
	EXPECT_EQ(found({{"app", "blog"}}), Ids{id_of(2)});
	EXPECT_EQ(found({{"app", "b*"}}), Ids{});
	EXPECT_EQ(found({{"order", "slowest"}, {"limit", "1"}}), Ids{id_of(1)});
	EXPECT_EQ(found({{"from", std::to_string(kNow - 4000)}}), (Ids{id_of(3), id_of(2)}));
	EXPECT_EQ(found({{"to", std::to_string(kNow - 4000)}}), Ids{id_of(1)});
}

TEST_F(ServicesTest, SaysThatThereIsMore) {
	put(record(1, kNow - 5000));
	put(record(2, kNow - 4000));
	EXPECT_TRUE(get("/api/v1/requests", {{"limit", "1"}}).at("more"));
	EXPECT_FALSE(get("/api/v1/requests", {{"limit", "2"}}).at("more"));
}

struct Wrong {
	const char *method;
	const char *path;
	std::map<std::string, std::string> parameters;
	int status;
	const char *parameter;
};

/* The test's name. */
void PrintTo(const Wrong &wrong, std::ostream *stream) {
	constexpr size_t kLongest = 20;
	*stream << wrong.method << " " << wrong.path;
	for (const auto &[name, value] : wrong.parameters) {
		*stream << " " << name << " ";
		for (char each : value.substr(0, kLongest)) {
			*stream << (isalnum(static_cast<unsigned char>(each)) ? each : '_');
		}
	}
}

class MistakesTest : public ServicesTest, public testing::WithParamInterface<Wrong> {};

TEST_P(MistakesTest, AreSaidWithTheirParameter) {
	Answer answer = ask(GetParam().method, GetParam().path, GetParam().parameters);
	EXPECT_EQ(answer.status, GetParam().status);
	EXPECT_FALSE(answer.body.at("error").at("message").get<std::string>().empty());
	EXPECT_EQ(answer.body.at("error").value("parameter", ""), GetParam().parameter);
}

INSTANTIATE_TEST_SUITE_P(
	Services, MistakesTest,
	testing::Values(
		Wrong{"GET", "/api/v1/requests", {{"lmit", "1"}}, 400, "lmit"},
		Wrong{"GET", "/api/v1/requests", {{"limit", "0"}}, 400, "limit"},
		Wrong{"GET", "/api/v1/requests", {{"limit", "99999999999999999999"}}, 400, "limit"},
		Wrong{"GET", "/api/v1/requests", {{"limit", "1x"}}, 400, "limit"},
		Wrong{"GET", "/api/v1/requests", {{"order", "best"}}, 400, "order"},
		Wrong{"GET", "/api/v1/requests", {{"from", "soon"}}, 400, "from"},
		Wrong{"GET", "/api/v1/requests", {{"from", "1h"}, {"to", "2h"}}, 400, "to"},
		Wrong{"GET", "/api/v1/requests", {{"q", "tnx:a"}}, 400, "q"},
		Wrong{"GET", "/api/v1/request", {}, 400, "id"},
		Wrong{"GET", "/api/v1/request", {{"id", "00000000"}}, 404, "id"},
		Wrong{"GET", "/api/v1/request", {{"id", "%'\"\x01"}}, 404, "id"},
		Wrong{"GET", "/api/v1/trace", {{"id", "00000000"}}, 404, "id"},
		Wrong{"GET", "/api/v1/compare", {{"a", "00000000"}}, 400, "b"},
		Wrong{"GET", "/api/v1/compare", {{"a", "00000000"}, {"b", "1111"}}, 404, "a"},
		Wrong{"GET", "/api/v1/export", {{"id", "0000"}, {"format", "pdf"}}, 400, "format"},
		Wrong{"GET", "/api/v1/export", {{"id", "0000"}}, 404, "id"},
		Wrong{"GET", "/api/v1/completions", {{"q", "a"}, {"cursor", "2"}}, 400, "cursor"},
		Wrong{"POST", "/api/v1/pin", {{"id", "00000000"}}, 404, "id"},
		Wrong{"POST", "/api/v1/forget", {}, 400, "q"},
		Wrong{"POST", "/api/v1/mark", {{"text", std::string(300, 'x')}}, 400, "text"},
		Wrong{"POST", "/api/v1/unmark", {{"id", "00000000"}}, 404, "id"},
		Wrong{"POST", "/api/v1/login-link", {}, 404, ""}));

TEST_F(ServicesTest, SaysWhereAQueryIsWrong) {
	json error = ask("GET", "/api/v1/requests", {{"q", "app:a tnx:b"}}).body.at("error");
	EXPECT_EQ(error.at("mistakes").at(0).at("column"), 7);
	EXPECT_EQ(error.at("hint"), "did you mean txn:?");
}

TEST_F(ServicesTest, ProposesTheParameterThatWasMeant) {
	json error = ask("GET", "/api/v1/requests", {{"lmit", "1"}}).body.at("error");
	EXPECT_EQ(error.at("hint"), "did you mean limit?");
}

TEST_F(ServicesTest, ShowsWaitingWhereTheProcessServedOneRequestAtATime) {
	for (auto [serving, id] : {std::pair{Serving::kUnknown, "00000000000000c1"},
							   {Serving::kThreads, "00000000000000c2"},
							   {Serving::kOneAtATime, "00000000000000c3"}}) {
		put(Request("/").open("Lock::take").waits(600).close().works(100).done(), id, serving);
		json findings = get("/api/v1/request", {{"id", id}}).at("findings");
		ASSERT_EQ(findings.size(), 1u) << id;
		/* Where it may have worked for others, nobody knows that it has not worked here. */
		EXPECT_EQ(findings[0].at("kind"),
				  serving == Serving::kOneAtATime ? "waiting" : "slow-code");
	}
	json trace = get("/api/v1/trace", {{"id", "00000000000000c3"}});
	ASSERT_EQ(trace.at("requests").size(), 3u);
	for (const json &each : trace.at("requests")) {
		bool is_waiting = each.at("request").at("id") == "00000000000000c3";
		EXPECT_EQ(each.at("findings").at(0).at("kind"), is_waiting ? "waiting" : "slow-code");
	}
}

TEST_F(ServicesTest, ShowsEverythingOfARequest) {
	put(cart(61), "00000000000000c1");
	json shown = get("/api/v1/request", {{"id", "00000000000000c1"}});
	EXPECT_EQ(shown.at("request").at("queries"), 61);
	EXPECT_EQ(shown.at("layers").at("database"), 61 * 8);
	EXPECT_EQ(shown.at("findings").at(0).at("kind"), "repeated-statement");
	const json &spans = shown.at("spans");
	ASSERT_EQ(spans.size(), 64u);
	EXPECT_EQ(spans[0].at("duration_ms"), 61 * 8 + 20);
	EXPECT_EQ(spans[0].at("self_ms"), 0);
	EXPECT_EQ(spans[2].at("statement"), "SELECT a FROM item WHERE id=?");
	EXPECT_EQ(spans[2].at("layer"), "database");
	EXPECT_EQ(spans[63].at("start_ms"), 61 * 8);
	int64_t held_up = 0;
	for (const json &step : shown.at("critical_path")) {
		held_up += step.at("to_ms").get<int64_t>() - step.at("from_ms").get<int64_t>();
	}
	EXPECT_EQ(held_up, 61 * 8 + 20);
}

TEST_F(ServicesTest, GivesCallsThatDoTheSameOneShape) {
	Request request("/cart");
	for (int i = 0; i < 3; i++) {
		request.open("Item::load").query("SELECT a FROM item WHERE id=" + std::to_string(i), 1);
		request.close();
	}
	request.open("Item::load").query("SELECT b FROM item", 1).close();
	put(request.done(), "00000000000000c1");
	json spans = get("/api/v1/request", {{"id", "00000000000000c1"}}).at("spans");
	EXPECT_EQ(spans[1].at("shape"), spans[3].at("shape"));
	EXPECT_EQ(spans[2].at("shape"), spans[6].at("shape"));
	EXPECT_NE(spans[1].at("shape"), spans[7].at("shape"));
	EXPECT_NE(spans[1].at("shape"), spans[2].at("shape"));
}

TEST_F(ServicesTest, ShowsWhatIsKnownWithoutADocument) {
	put(record(1, kNow - 1000));
	json shown = get("/api/v1/request", {{"id", id_of(1).substr(0, 6)}});
	EXPECT_EQ(shown.at("request").at("id"), id_of(1));
	EXPECT_EQ(shown.at("request").at("kept"), false);
	EXPECT_FALSE(shown.contains("spans"));
}

TEST_F(ServicesTest, ShowsATraceAsOneTree) {
	Request shop("/cart");
	shop.open("Cart::stock").call("http://stock/items", 50);
	std::string call(shop.last().id);
	put(shop.close().done(), "00000000000000c1");
	Request stock("/items");
	Transaction called = stock.works(10).done();
	called.spans.front().parent_id = called.texts.keep(call);
	put(std::move(called), "00000000000000c2");
	json shown = get("/api/v1/trace", {{"id", "00000000000000c2"}});
	ASSERT_EQ(shown.at("requests").size(), 2u);
	const json &second = shown.at("requests")[1];
	EXPECT_EQ(second.at("request").at("id"), "00000000000000c2");
	EXPECT_EQ(second.at("caller").at("request"), 0);
	EXPECT_EQ(shown.at("duration_ms"), 50);
	EXPECT_EQ(shown.at("trace_id"), "4bf92f3577b34da6a3ce929d0e0e4736");
	EXPECT_EQ(get("/api/v1/trace", {{"id", "4bf92f"}}), shown);
}

TEST_F(ServicesTest, ComparesTwoRequestsAndOneWithTheTypicalOne) {
	put(cart(5), "00000000000000c1");
	put(cart(61), "00000000000000c2");
	put(cart(5), "00000000000000c3");
	json two = get("/api/v1/compare", {{"a", "00000000000000c1"}, {"b", "00000000000000c2"}});
	const json &first = two.at("differences").at(0);
	EXPECT_EQ(first.at("growth_ms"), 56 * 8);
	EXPECT_EQ(first.at("count_before"), 5);
	EXPECT_EQ(first.at("count_after"), 61);
	EXPECT_EQ(first.at("change"), "count");
	json typical = get("/api/v1/compare", {{"a", "00000000000000c2"}, {"typical", "1"}});
	EXPECT_EQ(typical.at("typical").at("requests"), 2);
	EXPECT_EQ(typical.at("differences").at(0).at("growth_ms"), 56 * 8);
}

TEST_F(ServicesTest, ExportsInEachFormat) {
	put(cart(2), "00000000000000c1");
	for (const char *format : {"speedscope", "perfetto", "json"}) {
		json document = get("/api/v1/export", {{"id", "00000000000000c1"}, {"format", format}});
		EXPECT_NE(document.dump().find("Cart::items"), std::string::npos) << format;
	}
}

TEST_F(ServicesTest, PinsUnpinsAndForgets) {
	put(record(1, kNow - 1000));
	put(record(2, kNow - 1000));
	EXPECT_EQ(ask("POST", "/api/v1/pin", {{"id", id_of(1)}}).status, 200);
	EXPECT_EQ(get("/api/v1/request", {{"id", id_of(1)}}).at("request").at("pinned"), true);
	EXPECT_EQ(ask("POST", "/api/v1/unpin", {{"id", id_of(1)}}).status, 200);
	EXPECT_EQ(get("/api/v1/request", {{"id", id_of(1)}}).at("request").at("pinned"), false);
	Answer forgotten = ask("POST", "/api/v1/forget", {{"q", "id:" + id_of(1)}});
	EXPECT_EQ(forgotten.body.at("forgotten"), 1);
	EXPECT_EQ(found({}), Ids{id_of(2)});
}

TEST_F(ServicesTest, MarksMomentsForOneApplicationOrAll) {
	ask("POST", "/api/v1/mark", {{"text", "release 7"}, {"app", "shop"}});
	ask("POST", "/api/v1/mark", {{"text", "new database"}, {"time", "1h"}});
	json marks = get("/api/v1/marks").at("marks");
	ASSERT_EQ(marks.size(), 2u);
	EXPECT_EQ(marks[0].at("time_ms"), kNow - 3600000);
	EXPECT_EQ(marks[1].at("text"), "release 7");
	EXPECT_EQ(get("/api/v1/marks", {{"app", "blog"}}).at("marks").size(), 1u);
	EXPECT_EQ(get("/api/v1/marks", {{"from", "30m"}}).at("marks").size(), 1u);
	json last = get("/api/v1/marks", {{"limit", "1"}});
	ASSERT_EQ(last.at("marks").size(), 1u);
	EXPECT_EQ(last.at("marks")[0].at("text"), "release 7");
	EXPECT_EQ(last.at("more"), true);
	EXPECT_EQ(get("/api/v1/marks", {{"limit", "2"}}).at("more"), false);
}

TEST_F(ServicesTest, RemovesAMarkByTheFirstCharactersOfItsId) {
	std::string id =
		ask("POST", "/api/v1/mark", {{"text", "release 7"}, {"app", "shop"}}).body.at("id");
	ask("POST", "/api/v1/mark", {{"text", "release 7"}, {"app", "blog"}});
	ASSERT_EQ(id.size(), 16u);
	EXPECT_EQ(ask("POST", "/api/v1/unmark", {{"id", id.substr(0, 3)}}).status, 400);
	EXPECT_EQ(ask("POST", "/api/v1/unmark", {{"id", id + "0"}}).status, 404);
	Answer removed = ask("POST", "/api/v1/unmark", {{"id", id.substr(0, 12)}});
	EXPECT_EQ(removed.status, 200);
	EXPECT_EQ(removed.body.at("application"), "shop");
	json marks = get("/api/v1/marks").at("marks");
	ASSERT_EQ(marks.size(), 1u);
	EXPECT_EQ(marks[0].at("application"), "blog");
	EXPECT_EQ(ask("POST", "/api/v1/unmark", {{"id", id}}).status, 404);
}

TEST_F(ServicesTest, RemovesNoneOfSeveralMarksWhoseIdsBeginAlike) {
	/* So many that some have their first four digits in common. */
	std::map<std::string, int> beginnings;
	for (int i = 0; i < 1000; i++) {
		Answer added = ask("POST", "/api/v1/mark", {{"text", "release " + std::to_string(i)}});
		beginnings[added.body.at("id").get<std::string>().substr(0, 4)]++;
	}
	auto common = std::find_if(beginnings.begin(), beginnings.end(),
							   [](const auto &each) { return each.second > 1; });
	ASSERT_NE(common, beginnings.end());
	EXPECT_EQ(ask("POST", "/api/v1/unmark", {{"id", common->first}}).status, 400);
	EXPECT_EQ(get("/api/v1/marks").at("marks").size(), 1000u);
}

TEST_F(ServicesTest, TellsTheStateOfTheStore) {
	put(record(1, kNow - 1000));
	json status = get("/api/v1/status");
	EXPECT_EQ(status.at("store").at("requests_put"), 1);
	EXPECT_EQ(status.at("now_ms"), kNow);
	EXPECT_FALSE(status.contains("collector"));
	context_.daemon = [] { return json{{"http_port", 1}}; };
	EXPECT_EQ(get("/api/v1/status").at("collector").at("http_port"), 1);
}

TEST_F(ServicesTest, CompletesQueries) {
	json completion = get("/api/v1/completions", {{"q", "app:shop sta"}});
	EXPECT_EQ(completion.at("begin"), 9);
	EXPECT_EQ(completion.at("candidates").at(0).at("text"), "status:");
}

TEST(Services, AreThereOnceEach) {
	std::set<std::pair<std::string, std::string>> seen;
	for (const Service &service : services()) {
		EXPECT_TRUE(seen.emplace(service.method, service.path).second) << service.path;
		EXPECT_NE(service.answer, nullptr);
	}
}

} // namespace
