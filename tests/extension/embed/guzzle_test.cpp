/* Guzzle among the innermost calls. */
#include "curl_engine.h"
#include "tracing/distributedTrace.h"

static int found;

class Guzzle : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		start_request();
		probe = [] { found = guzzle_in_call_stack(); };
		ASSERT_TRUE(run_php("function plain($n) { $n ? plain($n - 1) : probe(); }"
							"class GuzzleClient {"
							"  function send($n) { plain($n); }"
							"  static function make($n) { plain($n); }"
							"}"
							"class Client { function send($n) { plain($n); } }"
							"class MyGuZZleWrapper { function send() { probe(); } }"
							"class Inherited extends GuzzleClient {}"
							"class Caller { function call($f) { $f(); } }"
							"function guzzle() { probe(); }"));
	}

	static int found_in(const std::string &code) {
		found = -1;
		EXPECT_TRUE(run_php(code.c_str()));
		return found;
	}
};

TEST_F(Guzzle, IsFoundByTheNameOfAMethodsClass) {
	for (const char *code :
		 {"(new GuzzleClient)->send(0);", "GuzzleClient::make(0);", "(new Inherited)->send(3);",
		  "(new MyGuZZleWrapper)->send();", "call_user_func([new GuzzleClient, 'send'], 1);"}) {
		EXPECT_EQ(1, found_in(code)) << code;
	}
}

TEST_F(Guzzle, IsFoundInANamespace) {
	EXPECT_EQ(1,
			  found_in("eval('namespace GuzzleHttp\\\\Handler;"
					   "class Curl { function send() { \\\\probe(); } } (new Curl)->send();');"));
}

TEST_F(Guzzle, IsNotFoundWhereNoClassIsCalledSo) {
	for (const char *code : {"probe();", "guzzle();", "(new Client)->send(2);",
							 "(new Caller)->call(function () { guzzle(); });"}) {
		EXPECT_EQ(0, found_in(code)) << code;
	}
}

TEST_F(Guzzle, IsNotFoundOnceItHasReturned) {
	EXPECT_EQ(0, found_in("(new GuzzleClient)->send(0); probe();"));
}

TEST_F(Guzzle, IsLookedForAmongTwentyCalls) {
	/* probe(), plain() for 17 and for 0, and send(). */
	EXPECT_EQ(1, found_in("(new GuzzleClient)->send(17);"));
	EXPECT_EQ(0, found_in("(new GuzzleClient)->send(18);"));
	EXPECT_EQ(1, found_in("(new MyGuZZleWrapper)->send(); "));
}

TEST_F(Guzzle, IsNotFoundOutsideAnyCall) {
	EXPECT_EQ(0, guzzle_in_call_stack());
}

TEST_F(Guzzle, SearchLeavesNothingBehind) {
	g->track_zend_execute = 0;
	probe = [] { EXPECT_FALSE(leaks_in_request(guzzle_in_call_stack)); };
	EXPECT_TRUE(run_php("(new GuzzleClient)->send(5);"));
}
