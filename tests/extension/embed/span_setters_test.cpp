/* The setters through which a span is described. */
#include "engine.h"

class Setters : public SpanTest {
protected:
	void SetUp() override {
		SpanTest::SetUp();
		node = open_span("call");
		fi = &node->data.function_info;
		arg = kaq_arguments_of(fi);
	}

	kaq_node *node = nullptr;
	kaq_function *fi = nullptr;
	struct _arg_data *arg = nullptr;

	/* externalReqHeaders after the setter was given this PHP value. */
	std::string request_headers_of(const char *expression) {
		zval lines = php_value(expression);
		kaq_set_external_call_req_headers(fi, &lines);
		zval_ptr_dtor(&lines);
		return arg->externalReqHeaders ? arg->externalReqHeaders : "(null)";
	}
};

TEST_F(Setters, FunctionInfoCopiesAllItsTexts) {
	char class_name[] = "Shop";
	char name[] = "pay";
	char component[] = "HTTP";
	kaq_copy_function_info(fi, class_name, name, component, EXTERNAL);
	class_name[0] = name[0] = component[0] = 'x';
	EXPECT_STREQ("Shop", fi->class_name);
	EXPECT_STREQ("pay", fi->function_name);
	EXPECT_STREQ("HTTP", fi->component_name);
	EXPECT_EQ(EXTERNAL, fi->isExternal);
}

TEST_F(Setters, NullClassAndFunctionStayNull) {
	kaq_copy_function_info(fi, nullptr, nullptr, "PHP", INTERNAL);
	EXPECT_EQ(nullptr, fi->class_name);
	EXPECT_EQ(nullptr, fi->function_name);
	EXPECT_EQ(INTERNAL, fi->isExternal);
}

TEST_F(Setters, EmptyClassIsACopyAndNotNull) {
	kaq_copy_function_info(fi, "", "", "PHP", INTERNAL);
	EXPECT_STREQ("", fi->class_name);
	EXPECT_STREQ("", fi->function_name);
}

TEST_F(Setters, ComponentIsCutToFifteenCharacters) {
	kaq_copy_function_info(fi, nullptr, "f", "123456789012345", INTERNAL);
	EXPECT_STREQ("123456789012345", fi->component_name);
	kaq_copy_function_info(fi, nullptr, "f", "abcdefghijklmnopq", INTERNAL);
	EXPECT_STREQ("abcdefghijklmno", fi->component_name);
	EXPECT_STREQ("", fi->span_id) << "the field behind it";
}

TEST_F(Setters, ComponentThatIsNotGivenStaysWhatItWas) {
	kaq_copy_function_info(fi, nullptr, "f", nullptr, INTERNAL);
	EXPECT_STREQ("PHP", fi->component_name);
}

TEST_F(Setters, NamesOfAnyLengthAreKeptWhole) {
	for (size_t length : {1, 35, 70, 71, 72, 73, 1000}) {
		std::string class_name(length, 'C');
		std::string name(length, 'f');
		kaq_copy_function_info(fi, class_name.c_str(), name.c_str(), "PHP", INTERNAL);
		EXPECT_EQ(class_name, fi->class_name) << length;
		EXPECT_EQ(name, fi->function_name) << length;
	}
}

TEST_F(Setters, PriorityIsStoredAndNullIsIgnored) {
	kaq_set_function_priority(fi, PRIORITY_1);
	EXPECT_EQ(PRIORITY_1, fi->priority);
	kaq_set_function_priority(nullptr, PRIORITY_1);
}

TEST_F(Setters, ConnectionSetsTypeHostAndPort) {
	kaq_set_method_dbconnect(fi, "db1", 3306);
	EXPECT_EQ(DBCONNECT, fi->type);
	EXPECT_STREQ("db1", arg->dbconnectHost);
	EXPECT_EQ(3306, arg->dbconnectPort);
}

TEST_F(Setters, ConnectionWithoutAHostIsLocalhost) {
	kaq_set_method_dbconnect(fi, nullptr, -1);
	EXPECT_STREQ("localhost", arg->dbconnectHost);
	EXPECT_EQ(-1, arg->dbconnectPort);
	kaq_set_method_dbconnect(fi, "", 0);
	EXPECT_STREQ("localhost", arg->dbconnectHost);
}

TEST_F(Setters, DatabaseNameSetsTypeAndKeepsTheNameForNull) {
	kaq_set_method_dbname(fi, "shop");
	EXPECT_EQ(DBCONNECT, fi->type);
	EXPECT_STREQ("shop", arg->dbname);
	fi->type = NONE;
	kaq_set_method_dbname(fi, nullptr);
	EXPECT_EQ(DBCONNECT, fi->type);
	EXPECT_STREQ("shop", arg->dbname);
}

TEST_F(Setters, QuerySetsTypeAndKeepsTheTextForNull) {
	kaq_set_method_dbquery(fi, nullptr);
	EXPECT_EQ(DBQUERY, fi->type);
	EXPECT_EQ(nullptr, arg->query);
	kaq_set_method_dbquery(fi, "");
	EXPECT_STREQ("", arg->query);
	kaq_set_method_dbquery(fi, "SELECT 1");
	EXPECT_STREQ("SELECT 1", arg->query);
}

TEST_F(Setters, UrlSetsTypeAndKeepsTheTextForNull) {
	kaq_set_method_url(fi, "http://h/");
	EXPECT_EQ(URL, fi->type);
	EXPECT_STREQ("http://h/", arg->url);
	kaq_set_method_url(fi, nullptr);
	EXPECT_STREQ("http://h/", arg->url);
}

TEST_F(Setters, NoneSetsTheTypeOnly) {
	kaq_set_method_url(fi, "http://h/");
	kaq_set_method_none(fi);
	EXPECT_EQ(NONE, fi->type);
	EXPECT_STREQ("http://h/", arg->url);
}

TEST_F(Setters, FailureMarksOneFlagByItsKind) {
	kaq_mark_component_failed(fi, 2);
	kaq_mark_component_failed(fi, -1);
	EXPECT_EQ(0, fi->isFault);
	EXPECT_EQ(0, fi->isError);
	kaq_mark_component_failed(fi, FAIL_TYPE_EXCEPTION);
	EXPECT_EQ(1, fi->isFault);
	EXPECT_EQ(0, fi->isError);
	kaq_mark_component_failed(fi, FAIL_TYPE_ERROR);
	EXPECT_EQ(1, fi->isError);
}

TEST_F(Setters, FailureTypesHaveTheNumbersOfTheContract) {
	EXPECT_EQ(0, FAIL_TYPE_ERROR);
	EXPECT_EQ(1, FAIL_TYPE_EXCEPTION);
	EXPECT_EQ(0, NONE);
	EXPECT_EQ(1, DBQUERY);
	EXPECT_EQ(2, URL);
	EXPECT_EQ(3, DBCONNECT);
	EXPECT_EQ(0, INTERNAL);
	EXPECT_EQ(1, EXTERNAL);
	EXPECT_EQ(0, BCKGRND);
	EXPECT_EQ(1, WEB);
}

TEST_F(Setters, NewMethodNameReplacesTheOld) {
	kaq_update_method_name(fi, "renamed");
	EXPECT_STREQ("renamed", fi->function_name);
	kaq_update_method_name(fi, std::string(300, 'x').c_str());
	EXPECT_EQ(std::string(300, 'x'), fi->function_name);
}

TEST_F(Setters, NewMethodNameMayBeMadeFromTheOld) {
	kaq_update_method_name(fi, fi->function_name);
	EXPECT_STREQ("call", fi->function_name);
}

TEST_F(Setters, StatusIsStored) {
	kaq_set_external_call_status(fi, 404);
	EXPECT_EQ(404, arg->externalStatusCode);
}

TEST_F(Setters, SecondCallReplacesTheFirst) {
	int round = 0;
	EXPECT_FALSE(leaks([&] {
		std::string text = "text " + std::to_string(100 + round++ % 900);
		kaq_copy_function_info(fi, std::string(100, 'C').c_str(), text.c_str(), "PHP", INTERNAL);
		kaq_set_method_dbconnect(fi, text.c_str(), round);
		kaq_set_method_dbname(fi, text.c_str());
		kaq_set_method_dbquery(fi, text.c_str());
		kaq_set_method_url(fi, text.c_str());
		request_headers_of("['A: 1']");
		zval headers = php_value("['B' => '2']");
		kaq_set_external_call_res_headers(fi, &headers);
		zval_ptr_dtor(&headers);
		EXPECT_EQ(text, arg->dbconnectHost);
		EXPECT_EQ(text, arg->dbname);
		EXPECT_EQ(text, arg->query);
		EXPECT_EQ(text, arg->url);
	}));
}

TEST_F(Setters, RequestHeaderLinesBecomeAMapOfNameToValue) {
	EXPECT_EQ("{\"Accept\":\"*\\/*\",\"X-One\":\"1\"}",
			  request_headers_of("['Accept: */*', 'X-One:   1']"));
}

TEST_F(Setters, RequestHeaderLinesThatAreNoStringsAreSkipped) {
	EXPECT_EQ("{\"A\":\"1\"}", request_headers_of("[1, null, 2.5, ['B: 2'], 'A: 1', true]"));
}

TEST_F(Setters, RequestHeaderLinesOfAnyKeyCount) {
	EXPECT_EQ("{\"A\":\"1\",\"B\":\"2\"}", request_headers_of("['x' => 'A: 1', 7 => 'B: 2']"));
}

TEST_F(Setters, LastOfRepeatedRequestHeadersStays) {
	EXPECT_EQ("{\"A\":\"2\"}", request_headers_of("['A: 1', 'A: 2']"));
}

TEST_F(Setters, RequestHeaderLineWithoutAColonIsDropped) {
	EXPECT_EQ("{\"A\":\"1\"}", request_headers_of("['no colon', '', 'A: 1', ': no name']"));
}

TEST_F(Setters, RequestHeaderNameIsCutAt127AndValueAt255Characters) {
	std::string expected = "{\"" + std::string(127, 'n') + "\":\"" + std::string(255, 'v') + "\"}";
	EXPECT_EQ(expected, request_headers_of("[str_repeat('n', 127).': '.str_repeat('v', 255)]"));
	EXPECT_EQ(expected, request_headers_of("[str_repeat('n', 128).': '.str_repeat('v', 256)]"));
	EXPECT_EQ(expected, request_headers_of("[str_repeat('n', 5000).':'.str_repeat('v', 9000)]"));
}

TEST_F(Setters, EmptyListOfRequestHeadersIsStillWritten) {
	EXPECT_EQ("[]", request_headers_of("[]"));
	EXPECT_EQ("[]", request_headers_of("[1, 'no colon']"));
}

TEST_F(Setters, RequestHeadersThatAreNoArrayLeaveTheFieldUntouched) {
	EXPECT_EQ("(null)", request_headers_of("'A: 1'"));
	EXPECT_EQ("(null)", request_headers_of("null"));
	EXPECT_EQ("(null)", request_headers_of("new ArrayObject(['A: 1'])"));
	request_headers_of("['A: 1']");
	EXPECT_EQ("{\"A\":\"1\"}", request_headers_of("5"));
	kaq_set_external_call_req_headers(fi, nullptr);
	EXPECT_STREQ("{\"A\":\"1\"}", arg->externalReqHeaders);
}

TEST_F(Setters, ResponseHeadersAreTheValuesJsonText) {
	zval headers = php_value("['Server' => 'x', 'Empty' => []]");
	kaq_set_external_call_res_headers(fi, &headers);
	zval_ptr_dtor(&headers);
	EXPECT_STREQ("{\"Server\":\"x\",\"Empty\":[]}", arg->externalResHeaders);
	kaq_set_external_call_res_headers(fi, nullptr);
	EXPECT_STREQ("{\"Server\":\"x\",\"Empty\":[]}", arg->externalResHeaders);
}
