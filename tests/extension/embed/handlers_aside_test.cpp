/* The script's error and exception handlers, when code in a call of ours sets and restores some. */
#include "unnoticed_call.h"

/* What noted_handlers() and noted_exception_handlers() say while nobody has touched them. */
static const char ALL[] =
	"[\"upper 512\",\"lower 512\",\"lower 1024\",\"first 512\",\"first 1024\"]";
static const char ALL_EXCEPTION[] = "[\"strrev\",\"strlen\",null]";

static const std::string RESTORE = "restore_error_handler();";
static const std::string SET = "set_error_handler('strlen', E_NOTICE);";
static const std::string RESTORE_EXCEPTION = "restore_exception_handler();";
static const std::string SET_EXCEPTION = "set_exception_handler('trim');";

static std::string times(int count, const std::string &code) {
	std::string all;
	while (count-- > 0) {
		all += code;
	}
	return all;
}

/* What code may do: restore more handlers than it set, fewer, or others. */
static std::vector<std::string> doings(void) {
	std::vector<std::string> codes;
	for (int count = 0; count < 5; count++) {
		for (const std::string &code :
			 {times(count, RESTORE), times(count, SET), times(count, RESTORE) + SET,
			  times(count, RESTORE) + times(40, SET), times(count, SET) + times(4, RESTORE),
			  SET + times(count, RESTORE) + SET + SET + RESTORE}) {
			codes.push_back(code);
		}
	}
	return codes;
}

/* The same of exception handlers. */
static std::string of_exceptions(std::string code) {
	for (size_t at = 0; (at = code.find("_error_handler", at)) != std::string::npos; at++) {
		code.replace(at, strlen("_error_handler"), "_exception_handler");
	}
	for (size_t at = 0; (at = code.find(", E_NOTICE", at)) != std::string::npos;) {
		code.erase(at, strlen(", E_NOTICE"));
	}
	return code;
}

/* Three error handlers, the one above with a level of its own, and two exception handlers. */
class HandlersAside : public UnnoticedCallTest {
protected:
	void SetUp() override {
		UnnoticedCallTest::SetUp();
		ASSERT_TRUE(
			run_php("restore_error_handler();"
					"class Handler {"
					"  static $gone = 0; public $name; public $last;"
					"  function __construct($name, $last = '') {"
					"    $this->name = $name; $this->last = $last; }"
					"  function handle($type) { $GLOBALS['noted'][] = \"$this->name $type\"; }"
					"  function __destruct() { self::$gone++; eval($this->last); }"
					"}"));
	}

	/* Sets them all anew; noted_handlers() has taken them off. */
	static void set_handlers() {
		EXPECT_TRUE(
			run_php("set_error_handler([new Handler('first'), 'handle']);"
					"set_error_handler([new Handler('lower'), 'handle'],"
					"                  E_USER_WARNING | E_USER_NOTICE | E_USER_ERROR);"
					"set_error_handler([new Handler('upper'), 'handle'], E_USER_WARNING);"
					"set_exception_handler('strlen'); set_exception_handler('strrev'); $noted = [];"
					"Handler::$gone = 0;"));
	}

	/* Who takes a warning and who a notice, from the upper handler down, which takes them off. */
	static std::string noted_handlers() {
		EXPECT_TRUE(run_php("for ($i = 0; $i < 5; $i++) {"
							"  trigger_error('x', E_USER_WARNING); trigger_error('x');"
							"  restore_error_handler(); }"));
		return php_json("$noted");
	}

	static std::string noted_exception_handlers() {
		EXPECT_TRUE(run_php("$found = []; do { $found[] = set_exception_handler('trim');"
							"  restore_exception_handler(); restore_exception_handler();"
							"} while (end($found) !== null);"));
		return php_json("$found");
	}

	/* All of them are where they were, and so many others have gone. */
	static void expect_all(const std::string &after, int gone = 0) {
		EXPECT_EQ(std::to_string(gone), php_json("Handler::$gone")) << after;
		EXPECT_EQ(ALL, noted_handlers()) << after;
		EXPECT_EQ(ALL_EXCEPTION, noted_exception_handlers()) << after;
	}
};

TEST_F(HandlersAside, StayAsTheyAreWhateverIsSetAndRestoredWithin) {
	for (const std::string &code : doings()) {
		set_handlers();
		EXPECT_EQ("[1]", iterate(code));
		expect_all(code);
	}
}

TEST_F(HandlersAside, OfExceptionsStayAsTheyAreToo) {
	for (const std::string &code : doings()) {
		set_handlers();
		EXPECT_EQ("[1]", iterate(of_exceptions(code)));
		expect_all(of_exceptions(code));
	}
}

TEST_F(HandlersAside, NoneStaysNone) {
	for (const std::string &code : doings()) {
		EXPECT_EQ("[1]", iterate(code + of_exceptions(code)));
		EXPECT_EQ("null", php_json("set_error_handler('strlen')")) << code;
		EXPECT_EQ("[null]", noted_exception_handlers()) << code;
		EXPECT_TRUE(run_php(RESTORE.c_str()));
	}
}

TEST_F(HandlersAside, StayThroughACallWithinACall) {
	set_handlers();
	probe = [] { iterate(times(3, RESTORE) + SET + times(2, RESTORE_EXCEPTION)); };
	EXPECT_EQ("[1]", iterate(RESTORE + SET_EXCEPTION + "probe();" + RESTORE + "probe();"));
	expect_all("nested calls");
}

TEST_F(HandlersAside, StayThroughABailout) {
	for (const char *end : {DYING, DYING_LATER, "trigger_error('x', 1 << 8);"}) {
		for (const std::string &code : doings()) {
			set_handlers();
			make_bad(code + of_exceptions(code) + times(10, RESTORE) + end);
			probe = [] {
				zval object = bad_object();
				php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
			};
			EXPECT_TRUE(dies_in_php("probe();"));
			CG(unclean_shutdown) = 0;
			expect_all(code + end);
		}
	}
}

TEST_F(HandlersAside, StayThroughAnExit) {
	for (const std::string &code : doings()) {
		set_handlers();
		make_bad(code + of_exceptions(code) + "exit;");
		probe = [] {
			zval object = bad_object();
			php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		};
		leak_check_off();
		run_php("probe();");
		drop_exception();
		leak_check_on();
		CG(unclean_shutdown) = 0;
		expect_all(code);
	}
}

TEST_F(HandlersAside, StayHoweverManyThereAre) {
	EXPECT_TRUE(run_php("for ($i = 0; $i < 100; $i++) { set_error_handler(function () {}); }"));
	set_handlers();
	EXPECT_EQ("[1]", iterate(times(200, RESTORE)));
	expect_all("many");
	EXPECT_TRUE(run_php("for ($n = 0; set_error_handler('trim') !== null; $n++) {"
						"  restore_error_handler(); restore_error_handler(); }"));
	EXPECT_EQ("98", php_json("$n")) << "two went to see who takes what";
}

TEST_F(HandlersAside, OnesBelowTakeErrorsInSilence) {
	set_handlers();
	for (int count : {1, 2}) {
		EXPECT_EQ("[1]", iterate(times(count, RESTORE) + "trigger_error('x', E_USER_ERROR);"));
	}
	expect_all("errors");
}

TEST_F(HandlersAside, ThoseSetWithinAreReleased) {
	set_handlers();
	const std::string set = "set_error_handler([new Handler('x'), 'handle']);"
							"set_exception_handler([new Handler('y'), 'handle']);";
	EXPECT_EQ("[1]", iterate(times(3, set) + RESTORE + RESTORE_EXCEPTION));
	EXPECT_EQ("6", php_json("Handler::$gone"));
	EXPECT_EQ("none", iterate(set + "throw new Exception('x');"));
	EXPECT_EQ("8", php_json("Handler::$gone"));
	expect_all("released", 8);
	EXPECT_EQ("11", php_json("Handler::$gone")) << "the script's own, once each";
}

TEST_F(HandlersAside, LeaveNothingBehind) {
	set_handlers();
	EXPECT_TRUE(run_php("$all = new Bad(function () {"
						"  restore_error_handler(); restore_error_handler();"
						"  set_error_handler([new Handler('x'), 'handle']);"
						"  restore_exception_handler(); set_exception_handler(function () {});"
						"  for ($i = 0; $i < 40; $i++) {"
						"    set_error_handler([new Handler('x'), 'handle']);"
						"    set_exception_handler([new Handler('x'), 'handle']); } });"));
	probe = [] {
		zval object = php_value("$all");
		php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		zval_ptr_dtor(&object);
	};
	auto work = [] { run_php("probe();"); };
	EXPECT_FALSE(leaks(work));
	EXPECT_FALSE(leaks_in_request(work));
	EXPECT_TRUE(run_php("Handler::$gone = 0;"));
	expect_all("many calls");
}

/* Sets a handler that runs this code when it goes. */
static std::string set_with_last(const std::string &setter, const std::string &last) {
	return setter + "([new Handler('z', '" + last + "'), 'handle']);";
}

TEST_F(HandlersAside, WhatOneDoesWhenItGoesIsNotNoticedEither) {
	probe = [] {
		zval object = bad_object();
		zval *result = php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr);
		EXPECT_TRUE(php_is_zval_valid_array(result));
		EXPECT_EQ(nullptr, EG(exception));
		php_zval_free(result);
	};
	for (const char *setter : {"set_error_handler", "set_exception_handler"}) {
		for (const char *last :
			 {"trigger_error(\"x\", E_USER_WARNING);", "throw new Exception;",
			  "restore_error_handler(); trigger_error(\"x\", E_USER_ERROR);",
			  "set_error_handler(\"strlen\"); set_exception_handler(\"strlen\");",
			  "restore_error_handler(); restore_exception_handler();",
			  "set_error_handler([new Handler(1, \"throw new Exception;\"), \"handle\"]);"}) {
			set_handlers();
			make_bad(set_with_last(setter, last));
			EXPECT_TRUE(run_php("probe();"));
			EXPECT_EQ(0, g->exception_count);
			expect_all(std::string(setter) + last, strstr(last, "new Handler") ? 2 : 1);
		}
	}
}

TEST_F(HandlersAside, OneThatDiesWhenItGoesPassesThatOnWithEverythingPutBack) {
	for (const char *setter : {"set_error_handler", "set_exception_handler"}) {
		set_handlers();
		make_bad(RESTORE + set_with_last(setter, "class Same {} class Same {}"));
		int level = EG(error_reporting);
		probe = [] {
			zval object = bad_object();
			php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		};
		EXPECT_TRUE(dies_in_php("probe();"));
		CG(unclean_shutdown) = 0;
		EXPECT_EQ(level, EG(error_reporting));
		expect_all(setter, 1);
	}
}

TEST_F(HandlersAside, OneThatThrowsWhenItGoesStopsNoExit) {
	for (const char *setter : {"set_error_handler", "set_exception_handler"}) {
		set_handlers();
		EXPECT_TRUE(run_php("$ending = false; $after = false;"));
		make_bad(set_with_last(setter, "if (!$GLOBALS[\"ending\"]) { throw new Exception; }") +
				 "exit;");
		probe = [] {
			zval object = bad_object();
			php_zval_free(php_call_unnoticed("iterator_to_array", &object, nullptr, nullptr));
		};
		leak_check_off();
		run_php("try { probe(); } finally { $after = true; }");
		drop_exception();
		leak_check_on();
		CG(unclean_shutdown) = 0;
		EXPECT_TRUE(run_php("$ending = true;"));
		EXPECT_EQ("false", php_json("$after"));
		EXPECT_EQ(ALL, noted_handlers());
		EXPECT_EQ(ALL_EXCEPTION, noted_exception_handlers());
	}
}

TEST_F(HandlersAside, OneThatComesBackWheneverItGoesIsGivenUp) {
	set_handlers();
	EXPECT_TRUE(run_php("$back = 0; class Back { function handle() {} function __destruct() {"
						"  if (++$GLOBALS['back'] < 1000) {"
						"    set_error_handler([new Back, 'handle']); } } }"));
	leak_check_off();
	EXPECT_EQ("[1]", iterate("set_error_handler([new Back, 'handle']);"));
	leak_check_on();
	EXPECT_EQ("true", php_json("$back > 1 && $back < 1000"));
	EXPECT_TRUE(run_php("$back = 1000;"));
	expect_all("one that comes back");
}
