/* The functions that scripts may call: their buffers, arrays and texts, and who owns them. */
#include "engine.h"

#include <string.h>

#include "core/script_functions.h"
#include "core/transaction_name.h"
#include "util/kaq_util_functions.h"

static std::string sanitised(std::string name, bool is_changed) {
	EXPECT_EQ(is_changed, kaq_sanitise_name(&name[0], name.size()));
	return name;
}

TEST(SanitiseName, KeepsAsciiLettersDigitsDotAndSlash) {
	const char kept[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789./";
	EXPECT_EQ(kept, sanitised(kept, false));
	EXPECT_EQ("", sanitised("", false));
}

TEST(SanitiseName, ReplacesEveryOtherByte) {
	int kept = 0;
	for (int c = 0; c < 256; c++) {
		std::string name(1, (char)c);
		if (kaq_sanitise_name(&name[0], 1)) {
			EXPECT_EQ("_", name) << c;
		} else {
			kept++;
			EXPECT_EQ((char)c, name[0]);
		}
	}
	EXPECT_EQ(26 + 26 + 10 + 2, kept) << "an underscore counts as replaced";
}

TEST(SanitiseName, LooksAtNothingBehindTheLength) {
	char name[] = "a b c d";
	EXPECT_TRUE(kaq_sanitise_name(name, 3));
	EXPECT_STREQ("a_b c d", name);
}

TEST(FunctionTable, HasThirteenRowsInOrder) {
	const std::vector<std::pair<std::string, uint32_t>> rows = {
		{"kaq_transaction_name", 1},
		{"kaq_app_param_increment", 2},
		{"kaq_app_param_avg", 2},
		{"kaq_print_stacktrace", 0},
		{"kaq_stack_depth", 0},
		{"kaq_custom_params", 2},
		{"kaq_set_appname", 1},
		{"kaq_agent_version", 0},
		{"kaq_trace_id", 0},
		{"kaq_span_id", 0},
		{"kaq_set_session_id", 1},
		{"kaq_debug_crash", 0},
		{"kaq_store_curl_response_headers", 2}};
	size_t row = 0;
	for (; kaq_functions[row].fname; row++) {
		ASSERT_LT(row, rows.size());
		EXPECT_EQ(rows[row].first, kaq_functions[row].fname);
		EXPECT_EQ(rows[row].second, kaq_functions[row].num_args);
	}
	EXPECT_EQ(rows.size(), row);
}

/* An unmonitored request: no function asks. */
class ScriptFunctions : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		server_variable("REQUEST_URI", "/page");
		start_request();
		ASSERT_EQ(0, g->control_signal);
	}

	static void name_transaction(const std::string &name) {
		zend_string *text = zend_string_init(name.data(), name.size(), 0);
		kaq_store_transaction_name(text);
		EXPECT_EQ(name, std::string(ZSTR_VAL(text), ZSTR_LEN(text))) << "the text itself is kept";
		zend_string_release(text);
	}

	static void set_session(size_t length, char c) {
		const std::string call = "kaq_set_session_id(str_repeat('" + std::string(1, c) + "', " +
								 std::to_string(length) + "));";
		EXPECT_TRUE(run_php(call.c_str()));
	}

	static zval *list_of(zval *array, const char *name) {
		return array ? zend_hash_str_find(Z_ARRVAL_P(array), name, strlen(name)) : nullptr;
	}
};

TEST_F(ScriptFunctions, NothingIsAllocatedBeforeItsFirstUse) {
	EXPECT_EQ(nullptr, g->request_uri_custom_name);
	EXPECT_EQ(nullptr, g->session_id);
	EXPECT_EQ(nullptr, g->app_param_sum_zv);
	EXPECT_EQ(nullptr, g->app_param_avg_zv);
	EXPECT_EQ(nullptr, g->custom_params_zv);
}

TEST_F(ScriptFunctions, NameIsStoredBehindASlashInABufferOfTheRequest) {
	name_transaction("a b?c");
	const char *buffer = g->request_uri_custom_name;
	EXPECT_STREQ("/a_b_c", buffer);
	name_transaction("d");
	EXPECT_EQ(buffer, g->request_uri_custom_name);
	EXPECT_EQ("/d" + std::string(8190, '\0'), std::string(buffer, 8192))
		<< "the whole buffer is cleared first";
	name_transaction("");
	EXPECT_STREQ("/", buffer);
}

TEST_F(ScriptFunctions, NameFillsTheBufferUpToItsEnd) {
	for (size_t length : {8189, 8190, 8191, 8192, 100000}) {
		name_transaction(std::string(length, '?'));
		size_t stored = length < 8190 ? length : 8190;
		EXPECT_EQ("/" + std::string(stored, '_'), g->request_uri_custom_name) << length;
		EXPECT_EQ('\0', g->request_uri_custom_name[KAQ_TEXT_BUFFER_SIZE - 1]);
	}
}

TEST_F(ScriptFunctions, NameIsDroppedWhenThereIsNoMemoryForItsBuffer) {
	allocation_fails(1);
	name_transaction("a b");
	EXPECT_EQ(nullptr, g->request_uri_custom_name);
	name_transaction("a b");
	EXPECT_STREQ("/a_b", g->request_uri_custom_name);
}

TEST_F(ScriptFunctions, SessionThatFillsItsBufferEndsInTheByteBehindIt) {
	set_session(9000, 's');
	const char *buffer = g->session_id;
	EXPECT_EQ(std::string(8192, 's'), std::string(buffer, 8192));
	EXPECT_EQ('\0', buffer[8192]);
	set_session(8191, 't');
	EXPECT_EQ(buffer, g->session_id);
	EXPECT_EQ(std::string(8191, 't'), buffer);
	set_session(1, 'u');
	EXPECT_EQ("u" + std::string(8192, '\0'), std::string(buffer, 8193))
		<< "nothing of a longer one is left";
}

TEST_F(ScriptFunctions, SessionIsDroppedWhenThereIsNoMemoryForItsBuffer) {
	EXPECT_TRUE(run_php("$id = 'abc'; kaq_stack_depth();"));
	allocation_fails(1);
	EXPECT_TRUE(run_php("kaq_set_session_id($id);"));
	EXPECT_EQ(nullptr, g->session_id);
	set_session(3, 'a');
	EXPECT_STREQ("aaa", g->session_id);
}

TEST_F(ScriptFunctions, ListsAreMadeOnceAndKeptApart) {
	EXPECT_TRUE(run_php("kaq_app_param_increment('x'); kaq_app_param_avg('x', 2);"
						"kaq_custom_params('x', 'v');"));
	zval *arrays[] = {g->app_param_sum_zv, g->app_param_avg_zv, g->custom_params_zv};
	zend_uchar types[] = {IS_DOUBLE, IS_DOUBLE, IS_STRING};
	for (int i = 0; i < 3; i++) {
		zval *list = list_of(arrays[i], "x");
		ASSERT_NE(nullptr, list);
		ASSERT_EQ(IS_ARRAY, Z_TYPE_P(list));
		EXPECT_EQ(1u, zend_hash_num_elements(Z_ARRVAL_P(list)));
		EXPECT_EQ(types[i], Z_TYPE_P(zend_hash_index_find(Z_ARRVAL_P(list), 0)));
	}
	EXPECT_TRUE(run_php("kaq_app_param_increment('x', 7); kaq_app_param_avg('y', 2);"
						"kaq_custom_params('x', 'w');"));
	EXPECT_EQ(arrays[0], g->app_param_sum_zv);
	EXPECT_EQ(arrays[1], g->app_param_avg_zv);
	EXPECT_EQ(arrays[2], g->custom_params_zv);
	EXPECT_EQ(2u, zend_hash_num_elements(Z_ARRVAL_P(list_of(arrays[0], "x"))));
	EXPECT_EQ(1u, zend_hash_num_elements(Z_ARRVAL_P(list_of(arrays[1], "x"))));
	EXPECT_EQ(2u, zend_hash_num_elements(Z_ARRVAL_P(arrays[1])));
}

TEST_F(ScriptFunctions, NumericNamesStayTexts) {
	EXPECT_TRUE(run_php("kaq_app_param_increment('5'); kaq_app_param_increment('5');"));
	EXPECT_EQ(nullptr, zend_hash_index_find(Z_ARRVAL_P(g->app_param_sum_zv), 5));
	zval *list = list_of(g->app_param_sum_zv, "5");
	ASSERT_NE(nullptr, list);
	EXPECT_EQ(2u, zend_hash_num_elements(Z_ARRVAL_P(list)));
}

TEST_F(ScriptFunctions, CustomTextIsHeldAndNotCopied) {
	EXPECT_TRUE(run_php("$GLOBALS['held'] = str_repeat('a b', mt_rand(2, 2));"
						"kaq_custom_params('k', $GLOBALS['held']);"));
	zval *element = zend_hash_index_find(Z_ARRVAL_P(list_of(g->custom_params_zv, "k")), 0);
	zval held = php_value("$held");
	EXPECT_EQ(Z_STR(held), Z_STR_P(element));
	zval_ptr_dtor(&held);
}

TEST_F(ScriptFunctions, ApplicationNameReplacesAndFreesTheEarlierOne) {
	EXPECT_FALSE(leaks([] { run_php("kaq_set_appname(str_repeat('long name ', 100));"); }));
	EXPECT_TRUE(run_php("kaq_set_appname('shop');"));
	EXPECT_STREQ("shop", g->application_name);
	EXPECT_STREQ("PHP-Application", g->applicationname) << "the setting's own text";
}

TEST_F(ScriptFunctions, TraceIdentifierIsANewTextOrTheEmptyOne) {
	strcpy(g->trace_id, "0af7651916cd43dd8448eb211c80319c");
	zval first = php_value("kaq_trace_id()"), second = php_value("kaq_trace_id()");
	EXPECT_STREQ(g->trace_id, Z_STRVAL(first));
	EXPECT_NE(Z_STR(first), Z_STR(second));
	zval_ptr_dtor(&first);
	zval_ptr_dtor(&second);
	g->trace_id[0] = '\0';
	zval empty = php_value("kaq_trace_id()");
	EXPECT_EQ(ZSTR_EMPTY_ALLOC(), Z_STR(empty));
	zval_ptr_dtor(&empty);
}

TEST_F(ScriptFunctions, TraceIdentifierOfASkippedRequestIsThatOfAnEarlierOne) {
	end_request();
	collector().answer(MONITORED_REPLY);
	start_request();
	ASSERT_EQ(1, g->control_signal);
	const std::string earlier = g->trace_id;
	EXPECT_EQ(32u, earlier.size());
	end_request();
	EngineTest::SetUp();
	start_request();
	ASSERT_STREQ("", g->request_uri) << "no server variable names it";
	EXPECT_EQ("\"" + earlier + "\"", php_json("kaq_trace_id()"));
}

TEST_F(ScriptFunctions, CallThatNoScriptMakesChangesNoText) {
	zval name = php_value("str_repeat('a b', mt_rand(2, 2))");
	zval *result = php_call("kaq_transaction_name", &name, nullptr, nullptr);
	EXPECT_STREQ("a ba b", Z_STRVAL(name));
	EXPECT_STREQ("/a_ba_b", g->request_uri_custom_name);
	php_zval_free(result);
	zval_ptr_dtor(&name);
}

TEST_F(ScriptFunctions, TextThatOthersHoldIsNotTheOneThatIsChanged) {
	EXPECT_TRUE(run_php("$GLOBALS['kept'] = str_repeat('a b', mt_rand(2, 2));"));
	zval kept = php_value("$kept");
	zend_ulong hash = zend_string_hash_val(Z_STR(kept));
	EXPECT_TRUE(run_php("$n = $kept; kaq_transaction_name($n); $GLOBALS['renamed'] = $n;"));
	zval renamed = php_value("$renamed");
	EXPECT_STREQ("a_ba_b", Z_STRVAL(renamed));
	EXPECT_NE(Z_STR(kept), Z_STR(renamed));
	EXPECT_STREQ("a ba b", Z_STRVAL(kept));
	EXPECT_EQ(hash, ZSTR_H(Z_STR(kept)));
	EXPECT_EQ(zend_hash_func("a_ba_b", 6), zend_string_hash_val(Z_STR(renamed)));
	zval_ptr_dtor(&kept);
	zval_ptr_dtor(&renamed);
}

static const char EVERY_CALL[] =
	"$n = str_repeat('a b', mt_rand(2, 2)); kaq_transaction_name($n);"
	"$a = ['k' => $n . '?']; kaq_transaction_name($a['k']);"
	"kaq_app_param_increment('x'); kaq_app_param_avg('x', 1); kaq_custom_params('k', 'v');"
	"kaq_set_appname('shop'); kaq_set_session_id('s'); kaq_agent_version(); kaq_trace_id();"
	"kaq_span_id(); kaq_store_curl_response_headers(1, 'X: y');";

TEST_F(ScriptFunctions, EverythingIsReleasedAtRequestEnd) {
	EXPECT_TRUE(run_php(EVERY_CALL));
	EXPECT_STREQ("/a_ba_b_", g->request_uri_custom_name);
	end_request();
	EXPECT_EQ(nullptr, g->request_uri_custom_name);
	EXPECT_EQ(nullptr, g->session_id);
	EXPECT_EQ(nullptr, g->application_name);
	EXPECT_EQ(nullptr, g->app_param_sum_zv);
	EXPECT_EQ(nullptr, g->app_param_avg_zv);
	EXPECT_EQ(nullptr, g->custom_params_zv);
	EXPECT_FALSE(leaks([this] {
		start_request();
		run_php(EVERY_CALL);
		end_request();
		collector().take();
	}));
}

TEST_F(ScriptFunctions, NothingIsStoredAfterRequestEnd) {
	kaq_request_end();
	EXPECT_TRUE(run_php(EVERY_CALL));
	EXPECT_EQ(nullptr, g->request_uri_custom_name);
	EXPECT_EQ(nullptr, g->session_id);
	EXPECT_EQ(nullptr, g->application_name);
	EXPECT_EQ(nullptr, g->app_param_sum_zv);
	EXPECT_EQ(nullptr, g->app_param_avg_zv);
	EXPECT_EQ(nullptr, g->custom_params_zv);
	EXPECT_EQ("\"a_b\"", php_json("(function () { $n = str_repeat('a b', mt_rand(1, 1));"
								  "kaq_transaction_name($n); return $n; })()"));
}
