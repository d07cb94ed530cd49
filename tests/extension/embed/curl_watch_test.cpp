/* Handles whose numbers come again: what is stored under a number goes with its handle. */
#include "curl_engine.h"
#include "curl/curl_headers.h"
#include "curl/curl_options.h"

#if KAQ_HANDLES_ARE_OBJECTS

class CurlWatch : public CurlTest {
protected:
	/* Numbers of multi handles, of which no handle here has one. */
	static const zend_long MULTI = 1000001;
	static const zend_long OTHER_MULTI = 1000002;

	/* Something in each store of easy handles. */
	void store_all(zval *easy) {
		zend_long id = kaq_zval_resource_id(easy);
		Value list("['A: 1']");
		kaq_curl_follow(easy);
		kaq_curl_save_req_headers(easy, list);
		kaq_insert_curl_res_headers(id, "A: 1");
		kaq_curl_multi_store_spanid(id, "0123456789abcdef");
		kaq_curl_multi_mark_reported(MULTI, id);
	}

	int stored(zend_long id) const {
		return (kaq_get_curl_req_headers(id) != nullptr) +
			   (kaq_get_curl_res_headers(id) != nullptr) +
			   (kaq_curl_multi_get_spanid(id) != nullptr) + kaq_curl_multi_is_reported(MULTI, id);
	}

	/* The numbers in a multi handle's list. */
	static std::string json_values(zend_long multi_id) {
		Value list(php_zval_alloc());
		ZVAL_COPY((zval *)list, kaq_curl_multi_get_children(multi_id));
		Value values(php_call("array_values", list, nullptr, nullptr));
		return json_of(values);
	}

	static uint32_t weak_references() {
		return zend_hash_num_elements(&EG(weakrefs));
	}
};

TEST_F(CurlWatch, EntriesGoWithTheirHandleAndOnlyThey) {
	Value gone("curl_init()");
	Value stays("curl_init()");
	zend_long id = gone.id();
	store_all(gone);
	store_all(stays);
	kaq_curl_multi_mark_reported(OTHER_MULTI, id);
	EXPECT_EQ(4, stored(id));
	gone.release();
	EXPECT_EQ(0, stored(id));
	EXPECT_EQ(0, kaq_curl_multi_is_reported(OTHER_MULTI, id));
	EXPECT_EQ(4, stored(stays.id()));
	EXPECT_EQ(1u, zend_hash_num_elements(&g->live_curl_handles));
}

TEST_F(CurlWatch, HandleIsFollowedFromItsFirstReceivedLineOn) {
	Value easy("curl_init()");
	zend_long id = easy.id();
	Value line("'A: 1'");
	EXPECT_EQ(1, kaq_save_curl_response_headers(easy, line));
	EXPECT_NE(nullptr, kaq_get_curl_res_headers(id));
	easy.release();
	EXPECT_EQ(nullptr, kaq_get_curl_res_headers(id));
}

TEST_F(CurlWatch, FreshHandleOfTheNumberHasNothingOfTheOneBefore) {
	for (int round = 0; round < 3; round++) {
		Value old("curl_init()");
		zend_long id = old.id();
		store_all(old);
		old.release();
		Value fresh("curl_init()");
		ASSERT_EQ(id, fresh.id());
		EXPECT_EQ(0, stored(id));
		store_all(fresh);
		EXPECT_EQ(4, stored(id));
	}
}

TEST_F(CurlWatch, CopyOfAHandleIsAHandleOfItsOwn) {
	Value easy("curl_init()");
	store_all(easy);
	{
		Value copy(php_call("curl_copy_handle", easy, nullptr, nullptr));
		EXPECT_EQ("[\"A: 1\"]", json_of(kaq_get_curl_req_headers(copy.id())));
		EXPECT_EQ(1, stored(copy.id())) << "the header lines alone are copied";
		store_all(copy);
	}
	EXPECT_EQ(4, stored(easy.id()));
}

TEST_F(CurlWatch, MultiHandlesEntriesGoWithIt) {
	Value multi("curl_multi_init()");
	Value easy("curl_init()");
	zend_long multi_id = multi.id();
	kaq_curl_follow(multi);
	store_all(easy);
	kaq_curl_multi_mark_reported(multi_id, easy.id());
	kaq_curl_multi_add_child(multi_id, easy);
	multi.release();
	EXPECT_EQ(nullptr, kaq_curl_multi_get_children(multi_id));
	EXPECT_EQ(nullptr, kaq_hash_find_by_id(g->curl_multi_reported_store, multi_id));
	EXPECT_EQ(4, stored(easy.id()));
}

TEST_F(CurlWatch, HandleThatGoesLeavesTheListsOfAllMultiHandles) {
	Value gone("curl_init()");
	Value stays("curl_init()");
	kaq_curl_follow(gone);
	for (zend_long multi : {MULTI, OTHER_MULTI}) {
		kaq_curl_multi_add_child(multi, gone);
		kaq_curl_multi_add_child(multi, stays);
	}
	gone.release();
	for (zend_long multi : {MULTI, OTHER_MULTI}) {
		EXPECT_EQ("[" + std::to_string(stays.id()) + "]", json_values(multi));
	}
}

TEST_F(CurlWatch, CloneOfAHandleWithHeaderLinesInheritsThemAlone) {
	ASSERT_TRUE(run_php("$easy = curl_init(); $other = curl_init();"));
	Value easy("$easy");
	Value list("['A: 1']");
	store_all(easy);
	kaq_save_header_option(easy, list);
	for (int round = 0; round < 2; round++) {
		Value clone("clone $easy");
		EXPECT_EQ("[\"A: 1\"]", json_of(kaq_get_curl_req_headers(clone.id())));
		EXPECT_EQ(1, stored(clone.id()));
		kaq_curl_follow(clone);
		zend_long id = clone.id();
		clone.release();
		EXPECT_EQ(0, stored(id));
	}
	Value other("clone $other");
	EXPECT_EQ(0, stored(other.id()));
}

TEST_F(CurlWatch, FollowingTwiceIsFollowingOnce) {
	uint32_t before = weak_references();
	Value easy("curl_init()");
	kaq_curl_follow(easy);
	kaq_curl_follow(easy);
	EXPECT_EQ(before + 1, weak_references());
	zend_long id = easy.id();
	store_all(easy);
	easy.release();
	EXPECT_EQ(0, stored(id));
	EXPECT_EQ(before, weak_references());
}

TEST_F(CurlWatch, WhatIsNoObjectIsNotFollowed) {
	for (const char *expression : {"null", "7", "'text'", "[]", "fopen('php://memory', 'r')"}) {
		Value value(expression);
		kaq_curl_follow(value);
	}
	EXPECT_EQ(0u, zend_hash_num_elements(&g->live_curl_handles));
}

TEST_F(CurlWatch, EndLeavesNoWeakReferenceToAHandleThatLives) {
	uint32_t before = weak_references();
	Value easy("curl_init()");
	Value multi("curl_multi_init()");
	kaq_curl_follow(multi);
	store_all(easy);
	EXPECT_EQ(before + 2, weak_references());
	kaq_release_curl_stores();
	EXPECT_EQ(before, weak_references());
	EXPECT_FALSE(OBJ_FLAGS(Z_OBJ(easy.value)) & IS_OBJ_WEAKLY_REFERENCED);
	easy.release();
	multi.release();
	kaq_create_curl_stores();
}

TEST_F(CurlWatch, HandlesThatLiveUntilRequestEndAreNoTroubleToIt) {
	EXPECT_FALSE(leaks([this] {
		ASSERT_TRUE(
			run_php("$easy = curl_init(); $multi = curl_multi_init();"
					"curl_multi_add_handle($multi, $easy);"
					"class Held { public static $by_a_class; }"
					"Held::$by_a_class = curl_init();"
					"$cycle = new stdClass; $cycle->self = $cycle; $cycle->easy = curl_init();"));
		for (const char *name : {"$easy", "$multi", "Held::$by_a_class", "$cycle->easy"}) {
			Value handle(name);
			store_all(handle);
		}
		Value multi("$multi");
		Value easy("$easy");
		kaq_curl_multi_add_child(multi.id(), easy);
		ASSERT_TRUE(run_php("unset($cycle);"));
		easy.release();
		multi.release();
		end_request();
		collector().take();
		start_request();
	}));
}

static bool is_all_zero(const HashTable &table) {
	static const HashTable none = {};
	return memcmp(&table, &none, sizeof(table)) == 0;
}

TEST_F(CurlWatch, IsNoneOnceTheStoresAreReleased) {
	Value easy("curl_init()");
	store_all(easy);
	kaq_release_curl_stores();
	EXPECT_TRUE(is_all_zero(g->live_curl_handles));
	kaq_curl_follow(easy);
	kaq_release_curl_stores();
	EXPECT_TRUE(is_all_zero(g->live_curl_handles));
	EXPECT_FALSE(OBJ_FLAGS(Z_OBJ(easy.value)) & IS_OBJ_WEAKLY_REFERENCED);
	kaq_create_curl_stores();
}

TEST_F(CurlWatch, IsNoneAfterARequestStartThatBailedOut) {
	Value easy("curl_init()");
	store_all(easy);
	easy.release();
	end_request();
	start_request_in_vain();
	EXPECT_TRUE(is_all_zero(g->live_curl_handles));
	kaq_request_end();
	EXPECT_TRUE(is_all_zero(g->live_curl_handles));
}

TEST_F(CurlWatch, IsNoneAfterARequestThatWasNotEndedAndAStartThatBailedOut) {
	ASSERT_TRUE(run_php("$easy = curl_init();"));
	{
		Value easy("$easy");
		store_all(easy);
	}
	skip_request_end();
	start_request_in_vain();
	EXPECT_TRUE(is_all_zero(g->live_curl_handles));
	EXPECT_EQ(nullptr, g->curl_req_headers_store);
	kaq_request_end();
	end_request();
	start_request();
	Value easy("curl_init()");
	store_all(easy);
	EXPECT_EQ(4, stored(easy.id()));
}

static int notices;
static zend_long last_noticed;

static void take_notice(zval *entry) {
	notices++;
	last_noticed = kaq_watched_id(entry);
}

TEST_F(CurlWatch, NoticeIsGivenOfEachHandleThatGoesAndNoneOfTheEnd) {
	HashTable watch;
	Value gone("curl_init()");
	Value stays("curl_init()");
	zend_long id = gone.id();
	notices = 0;
	kaq_watch_handles_start(&watch, take_notice);
	kaq_watch_handle(&watch, gone);
	kaq_watch_handle(&watch, stays);
	gone.release();
	EXPECT_EQ(1, notices);
	EXPECT_EQ(id, last_noticed);
	kaq_watch_handles_end(&watch);
	stays.release();
	EXPECT_EQ(1, notices);
}

TEST_F(CurlWatch, ScriptsOwnWeakReferencesWorkBesideOurs) {
	for (bool ours_first : {true, false}) {
		ASSERT_TRUE(run_php("$easy = curl_init(); $map = new WeakMap;"));
		zend_long id;
		{
			Value easy("$easy");
			id = easy.id();
			if (ours_first) {
				store_all(easy);
			}
			ASSERT_TRUE(run_php("$weak = WeakReference::create($easy); $map[$easy] = 1;"));
			if (!ours_first) {
				store_all(easy);
			}
		}
		EXPECT_EQ("[true,1]", php_json("[$weak->get() === $easy, count($map)]"));
		ASSERT_TRUE(run_php("unset($easy);"));
		EXPECT_EQ("[null,0]", php_json("[$weak->get(), count($map)]"));
		EXPECT_EQ(0, stored(id));
	}
}

TEST_F(CurlWatch, ScriptsWeakReferenceOutlivesOurs) {
	ASSERT_TRUE(run_php("$easy = curl_init(); $weak = WeakReference::create($easy);"));
	{
		Value easy("$easy");
		store_all(easy);
	}
	kaq_release_curl_stores();
	EXPECT_EQ("true", php_json("$weak->get() === $easy"));
	ASSERT_TRUE(run_php("unset($easy);"));
	EXPECT_EQ("null", php_json("$weak->get()"));
	kaq_create_curl_stores();
}

#endif
