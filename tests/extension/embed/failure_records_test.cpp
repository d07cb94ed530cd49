/* What the records of errors and exceptions and the call stacks say, and how much of them there is.
 */
#include "engine.h"

#include <string.h>

#include "diagnostics/stacktrace.h"
#include "json/kaq_json.h"

class FailureRecords : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		fi = &open_span("call")->data.function_info;
	}

	std::string records() const {
		const smart_str *text = &kaq_arguments_of(fi)->einfo;
		return text->s ? std::string(ZSTR_VAL(text->s), ZSTR_LEN(text->s)) : "(none)";
	}

	kaq_function *fi = nullptr;
};

/* Records. */

TEST_F(FailureRecords, RecordHasItsMembersInOrder) {
	kaq_make_einfo("Shop\\Error", "/srv/a.php", 42, 1700000000123, "Warning", "no \"stock\"", fi);
	EXPECT_EQ("{\"err_clz\":\"Shop\\\\Error\",\"filename\":\"\\/srv\\/a.php\",\"linenumber\":42,"
			  "\"time\":1700000000123,\"level\":\"Warning\",\"str\":\"no \\\"stock\\\"\"}",
			  records());
}

TEST_F(FailureRecords, NullNameFileAndMessageLeaveTheirMembersOut) {
	kaq_make_einfo(nullptr, nullptr, 0, 5, "Error", nullptr, fi);
	EXPECT_EQ("{\"linenumber\":0,\"time\":5,\"level\":\"Error\"}", records());
}

TEST_F(FailureRecords, EachMissingMemberTakesItsCommaAlong) {
	kaq_make_einfo(nullptr, "f", 1, 2, "Error", "m", fi);
	kaq_make_einfo("n", nullptr, 1, 2, "Error", "m", fi);
	kaq_make_einfo("n", "f", 1, 2, "Error", nullptr, fi);
	EXPECT_EQ("{\"filename\":\"f\",\"linenumber\":1,\"time\":2,\"level\":\"Error\",\"str\":\"m\"},"
			  "{\"err_clz\":\"n\",\"linenumber\":1,\"time\":2,\"level\":\"Error\",\"str\":\"m\"},"
			  "{\"err_clz\":\"n\",\"filename\":\"f\",\"linenumber\":1,\"time\":2,"
			  "\"level\":\"Error\"}",
			  records());
}

TEST_F(FailureRecords, EmptyTextsAreWritten) {
	kaq_make_einfo("", "", 0, 0, "", "", fi);
	EXPECT_EQ("{\"err_clz\":\"\",\"filename\":\"\",\"linenumber\":0,\"time\":0,\"level\":\"\","
			  "\"str\":\"\"}",
			  records());
}

TEST_F(FailureRecords, LineIsSignedAndTimeIsNot) {
	kaq_make_einfo(nullptr, nullptr, ZEND_LONG_MIN, UINT64_MAX, "Error", nullptr, fi);
	EXPECT_EQ("{\"linenumber\":-9223372036854775808,\"time\":18446744073709551615,"
			  "\"level\":\"Error\"}",
			  records());
}

TEST_F(FailureRecords, RecordsEndAtSixteenMegabytes) {
	g->failure_bytes = KAQ_MAX_FAILURE_BYTES - 1;
	kaq_arguments_of(fi)->stacktrace = strdup("[1]");
	kaq_make_einfo(nullptr, nullptr, 0, 0, "Error", nullptr, fi);
	size_t full = kaq_buf_length(&kaq_arguments_of(fi)->einfo);
	EXPECT_LT(0u, full) << "the record that passes the mark is whole";
	EXPECT_EQ(KAQ_MAX_FAILURE_BYTES - 1 + full, g->failure_bytes) << "the mark is the request's";
	kaq_make_einfo(nullptr, nullptr, 0, 0, "Error", nullptr, fi);
	EXPECT_EQ(full, kaq_buf_length(&kaq_arguments_of(fi)->einfo));
}

TEST_F(FailureRecords, MessageThatIsLongerThanWhatIsLeftIsLeftOut) {
	kaq_arguments_of(fi)->stacktrace = strdup("[1]");
	g->failure_bytes = KAQ_MAX_FAILURE_BYTES - 200;
	std::string fits(100, 'm');
	kaq_make_einfo(nullptr, nullptr, 1, 2, "Error", fits.c_str(), fi);
	EXPECT_EQ("{\"linenumber\":1,\"time\":2,\"level\":\"Error\",\"str\":\"" + fits + "\"}",
			  records());
	g->failure_bytes = KAQ_MAX_FAILURE_BYTES - 100;
	kaq_make_einfo(nullptr, nullptr, 3, 4, "Error", fits.c_str(), fi);
	EXPECT_NE(std::string::npos,
			  records().find(",{\"linenumber\":3,\"time\":4,\"level\":\"Error\"}"));
}

/* Stacks. */

static kaq_function *probed;
static const char *probed_message;

static void record_one(void) {
	kaq_make_einfo("n", "f", 1, 2, "Error", probed_message, probed);
}

class Stacks : public FailureRecords {
protected:
	std::string stack_after(const char *message) {
		probed = fi;
		probed_message = message;
		probe = record_one;
		EXPECT_TRUE(run_php("if (!function_exists('caller')) { function caller() { probe(); } }"
							"caller();"));
		return kaq_arguments_of(fi)->stacktrace ? kaq_arguments_of(fi)->stacktrace : "";
	}
};

TEST_F(Stacks, RecordBringsTheStackAlong) {
	std::string stack = stack_after("broke");
	EXPECT_EQ(0u, stack.find("[\"\",\"probe\",\"")) << stack;
	EXPECT_NE(std::string::npos, stack.find("],[\"\",\"caller\",\"")) << stack;
	EXPECT_EQ(']', stack.back());
}

TEST_F(Stacks, NullMessageBringsAStackAlong) {
	EXPECT_NE("", stack_after(nullptr));
}

TEST_F(Stacks, MessageThatCarriesAStackBringsNone) {
	EXPECT_EQ("", stack_after("PHP says\nStack trace:\n#0 {main}"));
	EXPECT_EQ("", stack_after("Stack trace:"));
	EXPECT_NE("", stack_after("stack trace:"));
}

TEST_F(Stacks, StackOfTheSpanIsNotReplaced) {
	kaq_arguments_of(fi)->stacktrace = strdup("[\"A\",\"b\",\"c\",1]");
	EXPECT_EQ("[\"A\",\"b\",\"c\",1]", stack_after("broke"));
}

TEST_F(Stacks, CountTowardsTheSixteenMegabytesAndEndThere) {
	g->failure_bytes = KAQ_MAX_FAILURE_BYTES - 1;
	kaq_make_einfo(nullptr, nullptr, 0, 0, "Error", nullptr, fi);
	EXPECT_EQ("", stack_after("broke")) << "the record was the last";
	g->failure_bytes = 0;
	size_t records_before = kaq_buf_length(&kaq_arguments_of(fi)->einfo);
	std::string stack = stack_after("broke");
	EXPECT_NE("", stack);
	EXPECT_EQ(stack.size() + kaq_buf_length(&kaq_arguments_of(fi)->einfo) - records_before,
			  g->failure_bytes);
}

TEST_F(Stacks, AtTheMarkThereIsNeitherARecordNorAStack) {
	g->failure_bytes = KAQ_MAX_FAILURE_BYTES;
	EXPECT_EQ("", stack_after("broke"));
	EXPECT_EQ("(none)", records());
}

TEST_F(Stacks, OutsideOfAllCodeThereIsNone) {
	kaq_make_stacktrace(fi);
	EXPECT_EQ(nullptr, kaq_arguments_of(fi)->stacktrace);
}

static smart_str appended;

TEST_F(Stacks, StackIsAppendedBehindACommaToATextThatIsThere) {
	probe = [] { kaq_append_backtrace(&appended); };
	kaq_buf_literal(&appended, "before");
	g->max_stack_depth = 1;
	EXPECT_TRUE(run_php("probe();"));
	std::string text = take_buffer(&appended);
	EXPECT_EQ(0u, text.find("before,[\"\",\"probe\",")) << text;
	EXPECT_EQ(std::string::npos, text.find("],["));
}

TEST_F(Stacks, PrintedStackEndsInATabAndNothingElse) {
	probe = kaq_print_user_stacktrace;
	g->max_stack_depth = 1;
	EXPECT_TRUE(run_php("ob_start(); probe(); $printed = ob_get_clean();"));
	std::string text = php_json("$printed");
	EXPECT_EQ(0u, text.find("\"kaq st: [\\\"\\\",\\\"probe\\\",")) << text;
	EXPECT_EQ(text.size() - 4, text.find("]\\t\"")) << text;
}

TEST_F(Stacks, PrintedStackOutsideOfAllCodeIsEmpty) {
	zval printed;
	php_output_start_default();
	kaq_print_user_stacktrace();
	php_output_get_contents(&printed);
	php_output_discard();
	EXPECT_STREQ("kaq st: \t", Z_STRVAL(printed));
	zval_ptr_dtor(&printed);
}
