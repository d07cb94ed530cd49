#include "curl/curl_stores.h"

#include "json/json_escape.h"
#include "state/php_kaq.h"
#include "util/kaq_util_functions.h"

#include <string.h>

#define KAQ_ID_KEY_SIZE 32

static size_t kaq_id_key(char key[KAQ_ID_KEY_SIZE], zend_long id) {
	memcpy(key, "index", strlen("index"));
	size_t length = strlen("index") + kaq_format_i64(key + strlen("index"), id);
	key[length] = '\0';
	return length;
}

zval *kaq_hash_find_by_id(zval *array, zend_long id) {
	if (!array || Z_TYPE_P(array) != IS_ARRAY) {
		return nullptr;
	}
	char key[KAQ_ID_KEY_SIZE];
	size_t length = kaq_id_key(key, id);
	return zend_hash_str_find(Z_ARRVAL_P(array), key, length);
}

void kaq_hash_delete_by_id(zval *array, zend_long id) {
	if (array && Z_TYPE_P(array) == IS_ARRAY && zend_hash_num_elements(Z_ARRVAL_P(array))) {
		char key[KAQ_ID_KEY_SIZE];
		size_t length = kaq_id_key(key, id);
		zend_hash_str_del(Z_ARRVAL_P(array), key, length);
	}
}

static zval *kaq_hash_put_by_id(zval *array, zend_long id, zval *value) {
	char key[KAQ_ID_KEY_SIZE];
	size_t length = kaq_id_key(key, id);
	return zend_hash_str_update(Z_ARRVAL_P(array), key, length, value);
}

zval *kaq_hash_get_or_create_array(zval *array, zend_long id) {
	if (!array || Z_TYPE_P(array) != IS_ARRAY) {
		return nullptr;
	}
	zval *found = kaq_hash_find_by_id(array, id);
	if (found) {
		return found;
	}
	zval fresh;
	array_init(&fresh);
	return kaq_hash_put_by_id(array, id, &fresh);
}

static void kaq_delete_number(zval *array, zend_long id) {
	zend_hash_index_del(Z_ARRVAL_P(array), (zend_ulong)id);
}

/* An entry of every array in a store. */
static void kaq_delete_everywhere(zval *store, zend_long id, void (*entry)(zval *, zend_long)) {
	if (!store) {
		return;
	}
	zval *array;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(store), array) {
		entry(array, id);
	}
	ZEND_HASH_FOREACH_END();
}

/* The object may have been an easy or a multi handle. */
static void kaq_forget_handle(zval *entry) {
	zend_kaq_globals *g = kaq_get_globals();
	zend_long id = kaq_watched_id(entry);
	kaq_hash_delete_by_id(g->curl_req_headers_store, id);
	kaq_hash_delete_by_id(g->curl_res_headers_store, id);
	kaq_hash_delete_by_id(g->curl_multi_spanid_store, id);
	kaq_hash_delete_by_id(g->curl_multi_reported_store, id);
	kaq_hash_delete_by_id(g->curl_multi_handle_store, id);
	kaq_delete_everywhere(g->curl_multi_reported_store, id, kaq_hash_delete_by_id);
	kaq_delete_everywhere(g->curl_multi_handle_store, id, kaq_delete_number);
}

static zval *zend_kaq_globals::*const stores[KAQ_CURL_STORES] = {
	&zend_kaq_globals::curl_req_headers_store, &zend_kaq_globals::curl_res_headers_store,
	&zend_kaq_globals::curl_multi_handle_store, &zend_kaq_globals::curl_multi_reported_store,
	&zend_kaq_globals::curl_multi_spanid_store};

/* A store is there once its array is complete. */
void kaq_create_curl_stores(void) {
	zend_kaq_globals *g = kaq_get_globals();
	for (int i = 0; i < KAQ_CURL_STORES; i++) {
		array_init(&g->curl_store_arrays[i]);
		g->*stores[i] = &g->curl_store_arrays[i];
	}
	kaq_watch_handles_start(&g->live_curl_handles, kaq_forget_handle);
}

void kaq_release_curl_stores(void) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_watch_handles_end(&g->live_curl_handles);
	for (zval *zend_kaq_globals::*store : stores) {
		zval *array = g->*store;
		g->*store = nullptr;
		if (array) {
			zval_ptr_dtor(array);
		}
	}
}

void kaq_forget_curl_stores(void) {
	zend_kaq_globals *g = kaq_get_globals();
	memset(&g->live_curl_handles, 0, sizeof(g->live_curl_handles));
	for (zval *zend_kaq_globals::*store : stores) {
		g->*store = nullptr;
	}
}

void kaq_curl_follow(const zval *handle) {
	kaq_watch_handle(&kaq_get_globals()->live_curl_handles, handle);
}

static bool kaq_holds_references(zval *list) {
	zval *element;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(list), element) {
		if (Z_ISREF_P(element)) {
			return true;
		}
	}
	ZEND_HASH_FOREACH_END();
	return false;
}

static void kaq_copy_elements(zval *copy, zval *list) {
	array_init(copy);
	zval *element;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(list), element) {
		ZVAL_DEREF(element);
		Z_TRY_ADDREF_P(element);
		add_next_index_zval(copy, element);
	}
	ZEND_HASH_FOREACH_END();
}

int kaq_curl_save_req_headers(const zval *handle, zval *list) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->curl_req_headers_store || !php_is_zval_valid_curl_handle(handle)) {
		return 0;
	}
	zend_long id = kaq_zval_resource_id(handle);
	if (!php_is_zval_true(list)) {
		kaq_free_curl_req_headers(id);
		return 0;
	}
	zval kept;
	if (php_is_zval_valid_array(list) && kaq_holds_references(list)) {
		kaq_copy_elements(&kept, list);
	} else {
		ZVAL_COPY(&kept, list);
	}
	kaq_hash_put_by_id(g->curl_req_headers_store, id, &kept);
	return 1;
}

zval *kaq_get_curl_req_headers(zend_long id) {
	return kaq_hash_find_by_id(kaq_get_globals()->curl_req_headers_store, id);
}

void kaq_free_curl_req_headers(zend_long id) {
	kaq_hash_delete_by_id(kaq_get_globals()->curl_req_headers_store, id);
}

void kaq_insert_curl_res_headers(zend_long id, const char *line) {
	zval *map = kaq_hash_get_or_create_array(kaq_get_globals()->curl_res_headers_store, id);
	if (php_is_zval_valid_array(map)) {
		kaq_add_header_line(map, line);
	}
}

zval *kaq_get_curl_res_headers(zend_long id) {
	return kaq_hash_find_by_id(kaq_get_globals()->curl_res_headers_store, id);
}

void kaq_free_curl_res_headers(zend_long id) {
	kaq_hash_delete_by_id(kaq_get_globals()->curl_res_headers_store, id);
}

/* Keyed by the number, too. */
void kaq_curl_multi_add_child(zend_long multi_id, const zval *easy) {
	zval *children =
		kaq_hash_get_or_create_array(kaq_get_globals()->curl_multi_handle_store, multi_id);
	if (php_is_zval_valid_array(children)) {
		zval number;
		ZVAL_LONG(&number, kaq_zval_resource_id(easy));
		zend_hash_index_update(Z_ARRVAL_P(children), (zend_ulong)Z_LVAL(number), &number);
	}
}

zval *kaq_curl_multi_get_children(zend_long multi_id) {
	return kaq_hash_find_by_id(kaq_get_globals()->curl_multi_handle_store, multi_id);
}

void kaq_curl_multi_remove_child(zend_long multi_id, zend_long easy_id) {
	zval *children = kaq_curl_multi_get_children(multi_id);
	if (php_is_zval_valid_array(children)) {
		zend_hash_index_del(Z_ARRVAL_P(children), (zend_ulong)easy_id);
	}
}

void kaq_curl_multi_remove_all_children(zend_long multi_id) {
	kaq_hash_delete_by_id(kaq_get_globals()->curl_multi_handle_store, multi_id);
}

static zval *kaq_reported_of(zend_long multi_id) {
	return kaq_hash_find_by_id(kaq_get_globals()->curl_multi_reported_store, multi_id);
}

int kaq_curl_multi_is_reported(zend_long multi_id, zend_long easy_id) {
	return kaq_hash_find_by_id(kaq_reported_of(multi_id), easy_id) != nullptr;
}

void kaq_curl_multi_mark_reported(zend_long multi_id, zend_long easy_id) {
	zval *reported =
		kaq_hash_get_or_create_array(kaq_get_globals()->curl_multi_reported_store, multi_id);
	if (php_is_zval_valid_array(reported)) {
		zval mark;
		ZVAL_TRUE(&mark);
		kaq_hash_put_by_id(reported, easy_id, &mark);
	}
}

void kaq_curl_multi_remove_reported(zend_long multi_id, zend_long easy_id) {
	kaq_hash_delete_by_id(kaq_reported_of(multi_id), easy_id);
}

void kaq_curl_multi_clear_reported(zend_long multi_id) {
	kaq_hash_delete_by_id(kaq_get_globals()->curl_multi_reported_store, multi_id);
}

void kaq_curl_multi_store_spanid(zend_long easy_id, const char *span_id) {
	zval *store = kaq_get_globals()->curl_multi_spanid_store;
	if (store) {
		zval copy;
		ZVAL_STRING(&copy, span_id);
		kaq_hash_put_by_id(store, easy_id, &copy);
	}
}

const char *kaq_curl_multi_get_spanid(zend_long easy_id) {
	zval *stored = kaq_hash_find_by_id(kaq_get_globals()->curl_multi_spanid_store, easy_id);
	return php_is_zval_non_empty_string(stored) ? Z_STRVAL_P(stored) : nullptr;
}

void kaq_curl_multi_remove_spanid(zend_long easy_id) {
	kaq_hash_delete_by_id(kaq_get_globals()->curl_multi_spanid_store, easy_id);
}
