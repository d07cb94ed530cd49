/* The members of a span object in the payload, row by row. */
#include "engine.h"

#include <string.h>

#include "util/kaq_strings.h"
#include "wire/payload.h"

class SpanMembers : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		node = kaq_create_new_node();
		node->data.key = 7;
		node->data.start_time = 1700000000001;
		node->data.end_time = 1700000000051;
		fi = &node->data.function_info;
		arg = kaq_arguments_of(fi);
	}

	void TearDown() override {
		kaq_free_node(node);
		SpanTest::TearDown();
	}

	std::string members() {
		smart_str out = {nullptr, 0};
		kaq_form_method_info(node, &out);
		return take_buffer(&out);
	}

	/* What stands behind the three members that every span has. */
	std::string rest() {
		static const std::string first = "\"st\":1700000000001,\"et\":1700000000051,\"mo\":7";
		std::string text = members();
		EXPECT_EQ(first, text.substr(0, first.size()));
		return text.substr(first.size());
	}

	void einfo_is(const char *text) {
		kaq_buf_append(&arg->einfo, text, strlen(text));
	}

	kaq_node *node = nullptr;
	kaq_function *fi = nullptr;
	struct _arg_data *arg = nullptr;
};

TEST_F(SpanMembers, EmptySpanHasThreeMembers) {
	EXPECT_EQ("\"st\":1700000000001,\"et\":1700000000051,\"mo\":7", members());
}

TEST_F(SpanMembers, TimesAreUnsigned64Bit) {
	node->data.start_time = UINT64_MAX;
	node->data.end_time = 0;
	EXPECT_EQ("\"st\":18446744073709551615,\"et\":0,\"mo\":7", members());
}

TEST_F(SpanMembers, KeyIsSigned) {
	node->data.key = -3;
	EXPECT_EQ("\"st\":1700000000001,\"et\":1700000000051,\"mo\":-3", members());
}

TEST_F(SpanMembers, PriorityStandsWhenNotZero) {
	fi->priority = PRIORITY_1;
	EXPECT_EQ(",\"pr\":1", rest());
}

TEST_F(SpanMembers, FunctionWithoutAClass) {
	kaq_copy_function_info(fi, nullptr, "calc", nullptr, 0);
	EXPECT_EQ(",\"fn\":\"calc\"", rest());
}

TEST_F(SpanMembers, ClassAndFunctionAreOneText) {
	kaq_copy_function_info(fi, "A\\B", "do\"it", nullptr, 0);
	EXPECT_EQ(",\"fn\":\"A\\\\B::do\\\"it\"", rest());
}

TEST_F(SpanMembers, ClassWithoutAFunctionHasNoName) {
	kaq_copy_function_info(fi, "A", nullptr, nullptr, 0);
	EXPECT_EQ("", rest());
}

TEST_F(SpanMembers, EmptyClassStillGivesTheColons) {
	kaq_copy_function_info(fi, "", "f", nullptr, 0);
	EXPECT_EQ(",\"fn\":\"::f\"", rest());
}

TEST_F(SpanMembers, EmptyFunctionNameIsWritten) {
	kaq_copy_function_info(fi, nullptr, "", nullptr, 0);
	EXPECT_EQ(",\"fn\":\"\"", rest());
}

TEST_F(SpanMembers, LongNamesAreWrittenAsShortOnesAre) {
	for (size_t length : {30u, 36u, 37u, 70u, 1100u, 9000u}) {
		const std::string text = std::string(length, 'n') + "\"" + std::string(length, 'm');
		const std::string escaped = std::string(length, 'n') + "\\\"" + std::string(length, 'm');
		kaq_copy_function_info(fi, nullptr, text.c_str(), nullptr, 0);
		EXPECT_EQ(",\"fn\":\"" + escaped + "\"", rest());
		kaq_copy_function_info(fi, text.c_str(), "\"", nullptr, 0);
		EXPECT_EQ(",\"fn\":\"" + escaped + "::\\\"\"", rest());
	}
}

TEST_F(SpanMembers, ComponentStandsWhenNotEmpty) {
	kaq_copy_function_info(fi, nullptr, nullptr, "My/SQL", 0);
	EXPECT_EQ(",\"cn\":\"My\\/SQL\"", rest());
}

TEST_F(SpanMembers, ExternalStandsWhenNotZero) {
	fi->isExternal = EXTERNAL;
	EXPECT_EQ(",\"ex\":1", rest());
}

TEST_F(SpanMembers, AsyncIsALiteralWhateverItsNumber) {
	fi->isAsync = 5;
	EXPECT_EQ(",\"ar\":true", rest());
}

TEST_F(SpanMembers, FaultAndErrorAreApart) {
	fi->isFault = 1;
	EXPECT_EQ(",\"if\":1", rest());
	fi->isFault = 0;
	fi->isError = 1;
	EXPECT_EQ(",\"ie\":1", rest());
}

TEST_F(SpanMembers, SpanIdStandsWhenNotEmpty) {
	kaq_copy_bounded(fi->span_id, sizeof(fi->span_id), "00f067aa0ba902b7");
	EXPECT_EQ(",\"si\":\"00f067aa0ba902b7\"", rest());
}

TEST_F(SpanMembers, ParentIdStandsWhenTheParentHasOne) {
	kaq_node *parent = kaq_create_new_node();
	node->data.parent = parent;
	EXPECT_EQ("", rest());
	kaq_copy_bounded(parent->data.function_info.span_id, 17, "aaaaaaaaaaaaaaaa");
	EXPECT_EQ(",\"psi\":\"aaaaaaaaaaaaaaaa\"", rest());
	kaq_free_node(parent);
}

TEST_F(SpanMembers, CallersSpanIdIsTheRootsAlone) {
	kaq_copy_bounded(g->root_parentspanid, 17, "bbbbbbbbbbbbbbbb");
	EXPECT_EQ("", rest());
}

TEST_F(SpanMembers, QueryIsEscapedAndMayBeEmpty) {
	kaq_set_method_dbquery(fi, "SELECT \"a\"\n\x01/\xc3\xa9");
	EXPECT_EQ(",\"qs\":\"SELECT \\\"a\\\"\\n\\u0001\\/\xc3\xa9\"", rest());
	kaq_set_method_dbquery(fi, "");
	EXPECT_EQ(",\"qs\":\"\"", rest());
}

TEST_F(SpanMembers, StatusStandsWhenNotZero) {
	kaq_set_external_call_status(fi, 404);
	EXPECT_EQ(",\"esc\":404", rest());
	kaq_set_external_call_status(fi, -1);
	EXPECT_EQ(",\"esc\":-1", rest());
}

TEST_F(SpanMembers, UrlTravelsAsTheHostName) {
	kaq_set_method_url(fi, "http://h/p?q=1");
	EXPECT_EQ(",\"hn\":\"http:\\/\\/h\\/p?q=1\"", rest());
}

TEST_F(SpanMembers, HostWinsOverUrl) {
	kaq_set_method_url(fi, "http://h/");
	kaq_set_method_dbconnect(fi, "db1", 0);
	EXPECT_EQ(",\"hn\":\"db1\"", rest());
}

TEST_F(SpanMembers, EmptyHostStillWinsOverUrl) {
	kaq_set_method_url(fi, "http://h/");
	arg->dbconnectHost = strdup("");
	EXPECT_EQ(",\"hn\":\"\"", rest());
}

TEST_F(SpanMembers, PortIsSignedAndStandsWhenNotZero) {
	kaq_set_method_dbconnect(fi, "d", -3306);
	EXPECT_EQ(",\"hn\":\"d\",\"pn\":-3306", rest());
	kaq_set_method_dbconnect(fi, "d", LONG_MIN);
	EXPECT_EQ(",\"hn\":\"d\",\"pn\":-9223372036854775808", rest());
}

TEST_F(SpanMembers, DatabaseName) {
	kaq_set_method_dbname(fi, "shop");
	EXPECT_EQ(",\"dn\":\"shop\"", rest());
}

TEST_F(SpanMembers, HeaderTextsGoInAsTheyAre) {
	arg->externalReqHeaders = strdup("{\"A\":\"1\"}");
	EXPECT_EQ(",\"erqh\":{\"A\":\"1\"}", rest());
	arg->externalResHeaders = strdup("[]");
	EXPECT_EQ(",\"erqh\":{\"A\":\"1\"},\"ersh\":[]", rest());
}

TEST_F(SpanMembers, ErrorRecordsGetBracketsOnly) {
	einfo_is("{\"a\":1}");
	einfo_is(",{\"b\":2}");
	EXPECT_EQ(",\"ei\":[{\"a\":1},{\"b\":2}]", rest());
}

TEST_F(SpanMembers, ErrorRecordsThatAreEmptyButAllocatedAreWritten) {
	kaq_buf_reserve(&arg->einfo, 16);
	ZSTR_LEN(arg->einfo.s) = 0;
	EXPECT_EQ(",\"ei\":[]", rest());
}

TEST_F(SpanMembers, StackTraceGetsBracketsOnly) {
	arg->stacktrace = strdup("[\"A\",\"b\",\"\\/x.php\",3]");
	EXPECT_EQ(",\"mst\":[[\"A\",\"b\",\"\\/x.php\",3]]", rest());
}

TEST_F(SpanMembers, TypeIsNeverWritten) {
	for (int type : {NONE, DBQUERY, URL, DBCONNECT}) {
		fi->type = type;
		EXPECT_EQ("", rest());
	}
}

TEST_F(SpanMembers, SpanWithEverythingByteForByte) {
	kaq_node *parent = kaq_create_new_node();
	kaq_copy_bounded(parent->data.function_info.span_id, 17, "aaaaaaaaaaaaaaaa");
	node->data.parent = parent;
	kaq_copy_function_info(fi, "PDO", "query", "PDO", EXTERNAL);
	kaq_copy_bounded(fi->span_id, sizeof(fi->span_id), "00f067aa0ba902b7");
	fi->priority = PRIORITY_1;
	fi->isAsync = 1;
	fi->isFault = 1;
	fi->isError = 1;
	kaq_set_method_dbconnect(fi, "db1", 3306);
	kaq_set_method_dbname(fi, "shop");
	kaq_set_method_url(fi, "http://h/");
	kaq_set_method_dbquery(fi, "SELECT 1");
	kaq_set_external_call_status(fi, 503);
	arg->externalReqHeaders = strdup("{\"A\":\"1\"}");
	arg->externalResHeaders = strdup("{\"B\":\"2\"}");
	einfo_is("{\"e\":1}");
	arg->stacktrace = strdup("[1]");
	EXPECT_EQ("\"st\":1700000000001,\"et\":1700000000051,\"mo\":7,\"pr\":1,\"fn\":\"PDO::query\","
			  "\"cn\":\"PDO\",\"ex\":1,\"ar\":true,\"if\":1,\"ie\":1,"
			  "\"si\":\"00f067aa0ba902b7\",\"psi\":\"aaaaaaaaaaaaaaaa\",\"qs\":\"SELECT 1\","
			  "\"esc\":503,\"hn\":\"db1\",\"pn\":3306,\"dn\":\"shop\",\"erqh\":{\"A\":\"1\"},"
			  "\"ersh\":{\"B\":\"2\"},\"ei\":[{\"e\":1}],\"mst\":[[1]]",
			  members());
	kaq_free_node(parent);
}
