/* What is remembered of curl handles during a request. */
#include "curl_engine.h"
#include "curl/curl_headers.h"

static const zend_long IDS[] = {
	0, 1, 7, -1, -5, INT64_C(4294967303), -4294967303, ZEND_LONG_MAX, ZEND_LONG_MIN};

class CurlStores : public CurlTest {
protected:
	zval *lists_of_multis() const {
		return g->curl_multi_handle_store;
	}

	/* A multi handle's easy handles, by number. */
	static std::vector<zend_long> children(zend_long multi_id) {
		std::vector<zend_long> ids;
		zval *list = kaq_curl_multi_get_children(multi_id);
		if (list) {
			zval *number;
			ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(list), number) {
				EXPECT_EQ(IS_LONG, Z_TYPE_P(number));
				ids.push_back(Z_LVAL_P(number));
			}
			ZEND_HASH_FOREACH_END();
		}
		return ids;
	}
	typedef std::vector<zend_long> Ids;

	static zval *new_array() {
		zval *array = php_zval_alloc();
		array_init(array);
		return array;
	}

	static void expect_untouched_by_id(zval *array) {
		const std::string before = json_of(array);
		kaq_hash_delete_by_id(array, 7);
		EXPECT_EQ(nullptr, kaq_hash_find_by_id(array, 7));
		EXPECT_EQ(nullptr, kaq_hash_get_or_create_array(array, 7));
		EXPECT_EQ(before, json_of(array));
	}
};

TEST_F(CurlStores, KeyIsIndexAndTheNumberInDecimal) {
	Value array(new_array());
	for (zend_long id : IDS) {
		zval *made = kaq_hash_get_or_create_array(array, id);
		const std::string key = "index" + std::to_string(id);
		EXPECT_EQ(made, zend_hash_str_find(Z_ARRVAL_P((zval *)array), key.data(), key.size()))
			<< key;
	}
	EXPECT_EQ(sizeof IDS / sizeof IDS[0], zend_hash_num_elements(Z_ARRVAL_P((zval *)array)));
}

TEST_F(CurlStores, EntryIsFoundUntilItIsDeletedAndNoOther) {
	Value array(new_array());
	for (zend_long id : IDS) {
		EXPECT_EQ(nullptr, kaq_hash_find_by_id(array, id)) << id;
		zval *made = kaq_hash_get_or_create_array(array, id);
		EXPECT_EQ(made, kaq_hash_find_by_id(array, id)) << id;
		kaq_hash_delete_by_id(array, id ^ 1);
		EXPECT_EQ(made, kaq_hash_find_by_id(array, id)) << id;
		kaq_hash_delete_by_id(array, id);
		EXPECT_EQ(nullptr, kaq_hash_find_by_id(array, id)) << id;
		kaq_hash_delete_by_id(array, id);
	}
}

TEST_F(CurlStores, CreatedEntryIsAnEmptyArrayAndMadeOnce) {
	Value array(new_array());
	zval *made = kaq_hash_get_or_create_array(array, 7);
	EXPECT_EQ("[]", json_of(made));
	add_next_index_long(made, 5);
	EXPECT_EQ(made, kaq_hash_get_or_create_array(array, 7));
	EXPECT_EQ("[5]", json_of(made));
}

TEST_F(CurlStores, EntryThatIsNoArrayIsGivenAsItIs) {
	Value array("['index7' => 'text', 'index8' => null]");
	EXPECT_EQ("\"text\"", json_of(kaq_hash_get_or_create_array(array, 7)));
	EXPECT_EQ("null", json_of(kaq_hash_get_or_create_array(array, 8)));
}

TEST_F(CurlStores, HelpersLeaveAloneWhatIsNoArray) {
	EXPECT_EQ(nullptr, kaq_hash_find_by_id(nullptr, 7));
	EXPECT_EQ(nullptr, kaq_hash_get_or_create_array(nullptr, 7));
	kaq_hash_delete_by_id(nullptr, 7);
	for (const char *expression : {"null", "5", "'index7'", "true"}) {
		Value value(expression);
		expect_untouched_by_id(value);
	}
}

TEST_F(CurlStores, AreEmptyAtEachRequestStartAndGoneAtItsEnd) {
	zval *zend_kaq_globals::*const stores[] = {
		&zend_kaq_globals::curl_req_headers_store, &zend_kaq_globals::curl_res_headers_store,
		&zend_kaq_globals::curl_multi_handle_store, &zend_kaq_globals::curl_multi_reported_store,
		&zend_kaq_globals::curl_multi_spanid_store};
	for (int round = 0; round < 2; round++) {
		for (zval *zend_kaq_globals::*store : stores) {
			EXPECT_EQ("[]", json_of(g->*store));
			kaq_hash_get_or_create_array(g->*store, 7);
		}
		end_request();
		for (zval *zend_kaq_globals::*store : stores) {
			EXPECT_EQ(nullptr, g->*store);
		}
		start_request();
	}
}

TEST_F(CurlStores, NothingIsKeptBetweenRequests) {
	kaq_release_curl_stores();
	{
		Value easy("curl_init()");
		Value list("['A: 1']");
		EXPECT_EQ(0, kaq_curl_save_req_headers(easy, list));
		kaq_curl_follow(easy);
		kaq_insert_curl_res_headers(7, "A: 1");
		kaq_curl_multi_add_child(7, easy);
		kaq_curl_multi_mark_reported(7, 8);
		kaq_curl_multi_store_spanid(8, "0123456789abcdef");
		kaq_free_curl_req_headers(7);
		kaq_free_curl_res_headers(7);
		kaq_curl_multi_remove_child(7, 8);
		kaq_curl_multi_remove_all_children(7);
		kaq_curl_multi_remove_reported(7, 8);
		kaq_curl_multi_clear_reported(7);
		kaq_curl_multi_remove_spanid(8);
		EXPECT_EQ(nullptr, kaq_get_curl_req_headers(easy.id()));
		EXPECT_EQ(nullptr, kaq_get_curl_res_headers(7));
		EXPECT_EQ(nullptr, kaq_curl_multi_get_children(7));
		EXPECT_EQ(0, kaq_curl_multi_is_reported(7, 8));
		EXPECT_EQ(nullptr, kaq_curl_multi_get_spanid(8));
		EXPECT_EQ(1u, easy.refcount());
	}
	kaq_create_curl_stores();
}

TEST_F(CurlStores, RequestsLeaveNothingBehind) {
	EXPECT_FALSE(leaks([this] {
		{
			Value easy("curl_init()");
			Value multi("curl_multi_init()");
			Value list("['A: ' . str_repeat('1', 9)]");
			kaq_curl_follow(easy);
			kaq_curl_follow(multi);
			kaq_curl_save_req_headers(easy, list);
			kaq_insert_curl_res_headers(easy.id(), "A: a value of some length");
			kaq_curl_multi_add_child(multi.id(), easy);
			kaq_curl_multi_mark_reported(multi.id(), easy.id());
			kaq_curl_multi_store_spanid(easy.id(), "0123456789abcdef");
		}
		end_request();
		collector().take();
		start_request();
	}));
}

/* The script's header lines. */
TEST_F(CurlStores, ListIsSharedAndReplacesTheOneBefore) {
	Value easy("curl_init()");
	Value first("['A: ' . mt_rand(1, 1)]");
	Value second("['B: ' . mt_rand(2, 2)]");
	EXPECT_EQ(1, kaq_curl_save_req_headers(easy, first));
	EXPECT_EQ(Z_ARR(first.value), Z_ARR_P(kaq_get_curl_req_headers(easy.id())));
	EXPECT_EQ(2u, first.refcount());
	EXPECT_EQ(1, kaq_curl_save_req_headers(easy, second));
	EXPECT_EQ(Z_ARR(second.value), Z_ARR_P(kaq_get_curl_req_headers(easy.id())));
	EXPECT_EQ(1u, first.refcount());
	kaq_free_curl_req_headers(easy.id());
	EXPECT_EQ(nullptr, kaq_get_curl_req_headers(easy.id()));
	EXPECT_EQ(1u, second.refcount());
}

TEST_F(CurlStores, ListOfOneHandleIsNotAnothers) {
	Value a("curl_init()");
	Value b("curl_init()");
	Value list("['A: 1']");
	kaq_curl_save_req_headers(a, list);
	EXPECT_EQ(nullptr, kaq_get_curl_req_headers(b.id()));
	kaq_free_curl_req_headers(b.id());
	EXPECT_EQ("[\"A: 1\"]", json_of(kaq_get_curl_req_headers(a.id())));
}

TEST_F(CurlStores, ListThatIsFalseIsNotSavedAndForgetsTheOneBefore) {
	Value easy("curl_init()");
	Value list("['A: 1']");
	for (const char *expression : {"[]", "null", "false", "0", "''", "'0'"}) {
		kaq_curl_save_req_headers(easy, list);
		Value falsy(expression);
		EXPECT_EQ(0, kaq_curl_save_req_headers(easy, falsy)) << expression;
		EXPECT_EQ(nullptr, kaq_get_curl_req_headers(easy.id())) << expression;
	}
}

TEST_F(CurlStores, TrueValueOfAnyTypeIsSaved) {
	Value easy("curl_init()");
	for (const char *expression : {"'text'", "5", "true", "[[]]", "[0]"}) {
		Value value(expression);
		EXPECT_EQ(1, kaq_curl_save_req_headers(easy, value)) << expression;
		EXPECT_EQ(json_of(value), json_of(kaq_get_curl_req_headers(easy.id())));
	}
}

TEST_F(CurlStores, ListIsNotSavedForWhatIsNoOpenEasyHandle) {
	Value list("['A: 1']");
	for (const char *expression :
		 {"null", "7", "'curl'", "[]", "new stdClass", "fopen('php://memory', 'r')",
		  "curl_multi_init()", "curl_share_init()"}) {
		Value value(expression);
		EXPECT_EQ(0, kaq_curl_save_req_headers(value, list)) << expression;
	}
	EXPECT_EQ(0, kaq_curl_save_req_headers(nullptr, list));
	EXPECT_EQ("[]", json_of(g->curl_req_headers_store));
}

TEST_F(CurlStores, LaterChangeThroughAReferenceDoesNotReachASavedList) {
	Value easy("curl_init()");
	ASSERT_TRUE(run_php("$line = 'A: ' . mt_rand(1, 1);"
						"$list = [&$line, 'B: ' . mt_rand(2, 2), &$line];"));
	Value list("$list");
	EXPECT_EQ(1, kaq_curl_save_req_headers(easy, list));
	ASSERT_TRUE(run_php("$line = 'C: 3';"));
	EXPECT_EQ("[\"A: 1\",\"B: 2\",\"A: 1\"]", json_of(kaq_get_curl_req_headers(easy.id())));
	ASSERT_TRUE(run_php("unset($list, $line);"));
	list.release();
	EXPECT_EQ("[\"A: 1\",\"B: 2\",\"A: 1\"]", json_of(kaq_get_curl_req_headers(easy.id())));
	zval *kept = zend_hash_index_find(Z_ARRVAL_P(kaq_get_curl_req_headers(easy.id())), 1);
	EXPECT_EQ(1u, Z_REFCOUNT_P(kept));
}

/* Response headers. */
TEST_F(CurlStores, ResponseHeadersAreAMapPerHandleUntilFreed) {
	for (zend_long id : IDS) {
		EXPECT_EQ(nullptr, kaq_get_curl_res_headers(id));
		kaq_insert_curl_res_headers(id, "Id: x\r\n");
		kaq_insert_curl_res_headers(id, "id:y");
	}
	for (zend_long id : IDS) {
		EXPECT_EQ("{\"Id\":\"x\\r\\n\",\"id\":\"y\"}", json_of(kaq_get_curl_res_headers(id))) << id;
		kaq_free_curl_res_headers(id);
		EXPECT_EQ(nullptr, kaq_get_curl_res_headers(id));
	}
}

TEST_F(CurlStores, LaterResponseHeaderReplacesTheOneOfItsName) {
	for (const char *line : {"HTTP/1.1 302 Found\r\n", "Set-Cookie: a", "Set-Cookie: b",
							 "Server: x", "\r\n", "HTTP/1.1 200 OK\r\n", "Set-Cookie: c"}) {
		kaq_insert_curl_res_headers(7, line);
	}
	EXPECT_EQ("{\"Set-Cookie\":\"c\",\"Server\":\"x\"}", json_of(kaq_get_curl_res_headers(7)));
}

TEST_F(CurlStores, ResponseHeadersAreCutToTheirBuffers) {
	const std::string name(200, 'n');
	const std::string value(300, 'v');
	kaq_insert_curl_res_headers(7, (name + ": " + value).c_str());
	EXPECT_EQ("{\"" + name.substr(0, 127) + "\":\"" + value.substr(0, 255) + "\"}",
			  json_of(kaq_get_curl_res_headers(7)));
}

TEST_F(CurlStores, NamesThatAgreeInTheirFirst127CharactersAreOne) {
	const std::string name(127, 'n');
	kaq_insert_curl_res_headers(7, (name + "a: 1").c_str());
	kaq_insert_curl_res_headers(7, (name + "b: 2").c_str());
	EXPECT_EQ("{\"" + name + "\":\"2\"}", json_of(kaq_get_curl_res_headers(7)));
}

TEST_F(CurlStores, ManyResponseHeadersAreAllKept) {
	for (int i = 0; i < 5000; i++) {
		kaq_insert_curl_res_headers(7, ("X-" + std::to_string(i) + ": v").c_str());
	}
	EXPECT_EQ(5000u, zend_hash_num_elements(Z_ARRVAL_P(kaq_get_curl_res_headers(7))));
}

TEST_F(CurlStores, LineWithoutANameLeavesAnEmptyMap) {
	for (const char *line : {"HTTP/1.1 200 OK\r\n", "\r\n", "", ": v"}) {
		kaq_insert_curl_res_headers(7, line);
	}
	EXPECT_EQ("[]", json_of(kaq_get_curl_res_headers(7)));
}

TEST_F(CurlStores, ReceivedLineIsKeptOnlyAsATextForAValidHandle) {
	Value easy("curl_init()");
	Value line("'A: 1'");
	for (const char *expression : {"''", "null", "5", "['A: 1']", "true"}) {
		Value value(expression);
		EXPECT_EQ(0, kaq_save_curl_response_headers(easy, value)) << expression;
	}
	for (const char *expression : {"null", "7", "curl_multi_init()", "'curl'"}) {
		Value value(expression);
		EXPECT_EQ(0, kaq_save_curl_response_headers(value, line)) << expression;
	}
	EXPECT_EQ("[]", json_of(g->curl_res_headers_store));
	EXPECT_EQ(1, kaq_save_curl_response_headers(easy, line));
	EXPECT_EQ("{\"A\":\"1\"}", json_of(kaq_get_curl_res_headers(easy.id())));
}

/* Children of multi handles. */
TEST_F(CurlStores, ChildrenStandInTheOrderOfAddingAndAreNotHeld) {
	Value a("curl_init()");
	Value b("curl_init()");
	for (zend_long multi : IDS) {
		EXPECT_EQ(nullptr, kaq_curl_multi_get_children(multi)) << multi;
		kaq_curl_multi_add_child(multi, b);
		kaq_curl_multi_add_child(multi, a);
		EXPECT_EQ((Ids{b.id(), a.id()}), children(multi)) << multi;
		EXPECT_EQ(1u, a.refcount());
		EXPECT_EQ(1u, b.refcount());
		kaq_curl_multi_remove_all_children(multi);
		EXPECT_EQ(nullptr, kaq_curl_multi_get_children(multi)) << multi;
	}
}

TEST_F(CurlStores, ManyChildrenKeepTheirOrder) {
	Value handles("array_map(function () { return curl_init(); }, range(1, 100))");
	Ids added;
	for (int i = 0; i < 100; i++) {
		zval *easy = zend_hash_index_find(Z_ARRVAL_P((zval *)handles), (zend_ulong)(i * 37 % 100));
		kaq_curl_multi_add_child(7, easy);
		added.push_back(kaq_zval_resource_id(easy));
	}
	EXPECT_EQ(added, children(7));
}

TEST_F(CurlStores, ChildOfTheNumberIsRemovedAndNoOther) {
	Value a("curl_init()");
	Value b("curl_init()");
	for (zval *child : {(zval *)b, (zval *)a, (zval *)b}) {
		kaq_curl_multi_add_child(7, child);
	}
	kaq_curl_multi_add_child(8, a);
	EXPECT_EQ((Ids{b.id(), a.id()}), children(7)) << "a handle is on its multi handle once";
	kaq_curl_multi_remove_child(7, a.id());
	EXPECT_EQ((Ids{b.id()}), children(7));
	kaq_curl_multi_remove_child(7, a.id());
	EXPECT_EQ((Ids{b.id()}), children(7));
	EXPECT_EQ((Ids{a.id()}), children(8));
	kaq_curl_multi_remove_child(9, a.id());
	EXPECT_EQ(nullptr, kaq_curl_multi_get_children(9));
}

TEST_F(CurlStores, ChildIsAppendedBehindOneThatWasRemoved) {
	Value a("curl_init()");
	Value b("curl_init()");
	Value c("curl_init()");
	kaq_curl_multi_add_child(7, a);
	kaq_curl_multi_add_child(7, b);
	kaq_curl_multi_remove_child(7, a.id());
	kaq_curl_multi_add_child(7, c);
	kaq_curl_multi_add_child(7, a);
	EXPECT_EQ((Ids{b.id(), c.id(), a.id()}), children(7));
}

TEST_F(CurlStores, HandleIsFoundByItsNumberWhileItIsOpen) {
	Value easy("curl_init()");
	Value multi("curl_multi_init()");
	Value other("fopen('php://memory', 'r')");
	Value object("new stdClass");
	zval found;
	ASSERT_TRUE(kaq_find_curl_handle(easy.id(), &found));
	EXPECT_EQ(Z_PTR_P((zval *)easy), Z_PTR(found));
	EXPECT_EQ(1u, easy.refcount());
	zend_long id = easy.id();
	easy.release();
	EXPECT_FALSE(kaq_find_curl_handle(id, &found));
	EXPECT_FALSE(kaq_find_curl_handle(multi.id(), &found));
#if KAQ_HANDLES_ARE_OBJECTS
	EXPECT_FALSE(kaq_find_curl_handle(object.id(), &found));
	EXPECT_FALSE(kaq_find_curl_handle(EG(objects_store).top, &found));
#else
	EXPECT_FALSE(kaq_find_curl_handle(other.id(), &found));
#endif
	const zend_long absent_ones[] = {
		0, -1, 1000000, id + (INT64_C(1) << 32), ZEND_LONG_MAX, ZEND_LONG_MIN};
	for (zend_long absent : absent_ones) {
		EXPECT_FALSE(kaq_find_curl_handle(absent, &found)) << absent;
	}
}

#if !KAQ_HANDLES_ARE_OBJECTS
TEST_F(CurlStores, ClosedHandleIsNoneAndIsRemovedAllTheSame) {
	Value easy("curl_init()");
	kaq_curl_multi_add_child(7, easy);
	Value closed(php_call("curl_close", easy, nullptr, nullptr));
	zval found;
	EXPECT_FALSE(kaq_find_curl_handle(easy.id(), &found));
	Value list("['A: 1']");
	EXPECT_EQ(0, kaq_curl_save_req_headers(easy, list));
	kaq_curl_multi_remove_child(7, easy.id());
	EXPECT_EQ((Ids{}), children(7));
}
#endif

TEST_F(CurlStores, WhatIsStoredForAMultiHandleAndIsNoArrayStays) {
	Value easy("curl_init()");
	add_assoc_string(lists_of_multis(), "index7", (char *)"text");
	kaq_curl_multi_remove_child(7, easy.id());
	add_assoc_string(g->curl_multi_reported_store, "index7", (char *)"text");
	kaq_curl_multi_mark_reported(7, 1);
	kaq_curl_multi_remove_reported(7, 1);
	EXPECT_EQ(0, kaq_curl_multi_is_reported(7, 1));
	add_assoc_string(g->curl_res_headers_store, "index7", (char *)"text");
	kaq_insert_curl_res_headers(7, "A: 1");
	for (zval *store :
		 {lists_of_multis(), g->curl_multi_reported_store, g->curl_res_headers_store}) {
		EXPECT_EQ("{\"index7\":\"text\"}", json_of(store));
	}
	kaq_curl_multi_add_child(7, easy);
	EXPECT_EQ("{\"index7\":\"text\"}", json_of(lists_of_multis()));
	EXPECT_EQ(1u, easy.refcount());
}

/* Marks and span ids. */
TEST_F(CurlStores, MarkIsThatOfOneEasyHandleOnOneMultiHandle) {
	for (zend_long multi : IDS) {
		for (zend_long easy : IDS) {
			EXPECT_EQ(0, kaq_curl_multi_is_reported(multi, easy));
			kaq_curl_multi_mark_reported(multi, easy);
			EXPECT_EQ(1, kaq_curl_multi_is_reported(multi, easy));
		}
	}
	kaq_curl_multi_remove_reported(7, -5);
	kaq_curl_multi_remove_reported(99, 7);
	EXPECT_EQ(0, kaq_curl_multi_is_reported(7, -5));
	EXPECT_EQ(1, kaq_curl_multi_is_reported(7, 7));
	EXPECT_EQ(1, kaq_curl_multi_is_reported(-5, 7));
	EXPECT_EQ(1, kaq_curl_multi_is_reported(1, -5));
	kaq_curl_multi_clear_reported(7);
	EXPECT_EQ(0, kaq_curl_multi_is_reported(7, 7));
	EXPECT_EQ(nullptr, kaq_hash_find_by_id(g->curl_multi_reported_store, 7));
	EXPECT_EQ(nullptr, kaq_hash_find_by_id(g->curl_multi_reported_store, 99));
	EXPECT_EQ(1, kaq_curl_multi_is_reported(1, 7));
}

TEST_F(CurlStores, MarkIsTrueUnderTheEasyHandlesKey) {
	kaq_curl_multi_mark_reported(7, 8);
	kaq_curl_multi_mark_reported(7, 8);
	EXPECT_EQ("{\"index7\":{\"index8\":true}}", json_of(g->curl_multi_reported_store));
}

TEST_F(CurlStores, SpanIdIsACopyUntilItIsRemoved) {
	char span_id[] = "0123456789abcdef";
	for (zend_long id : IDS) {
		EXPECT_EQ(nullptr, kaq_curl_multi_get_spanid(id)) << id;
		kaq_curl_multi_store_spanid(id, span_id);
	}
	memset(span_id, 'x', 16);
	for (zend_long id : IDS) {
		EXPECT_STREQ("0123456789abcdef", kaq_curl_multi_get_spanid(id)) << id;
		kaq_curl_multi_store_spanid(id, span_id);
		EXPECT_STREQ(span_id, kaq_curl_multi_get_spanid(id)) << id;
		kaq_curl_multi_remove_spanid(id);
		EXPECT_EQ(nullptr, kaq_curl_multi_get_spanid(id)) << id;
	}
}

TEST_F(CurlStores, SpanIdThatIsNoNonEmptyTextIsNone) {
	kaq_curl_multi_store_spanid(7, "");
	EXPECT_EQ(nullptr, kaq_curl_multi_get_spanid(7));
	add_assoc_long(g->curl_multi_spanid_store, "index7", 5);
	EXPECT_EQ(nullptr, kaq_curl_multi_get_spanid(7));
}
