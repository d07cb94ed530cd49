/*
 * What is remembered of curl handles during a request: the script's header lines, the response
 * headers received, the transfers of multi handles.
 *
 * The stores are arrays in the thread's record, keyed by "index" and the handle's number, created
 * at request start and released at its end. Numbers are those of kaq_zval_resource_id(). Where a
 * number can pass to another handle, everything stored under it goes when its handle goes, provided
 * that the handle was followed. A value that a function here returns belongs to its store.
 */
#pragma once

#include "util/engine_compat.h"

/* Creates the stores, releases them. Without stores nothing is remembered and nothing found, and
 * releasing does nothing. */
void kaq_create_curl_stores(void);
void kaq_release_curl_stores(void);

/* Drops stores of a request that was not ended: the memory that they are in is gone. */
void kaq_forget_curl_stores(void);

/* Any handle under whose number something is going to be stored. */
void kaq_curl_follow(const zval *handle);

/* Header lines that the script set on an easy handle. Saving shares the list; one that holds
 * references is copied, for the script may yet change what they refer to. An empty list leaves
 * nothing stored. Saves and returns 1, or returns 0. */
int kaq_curl_save_req_headers(const zval *handle, zval *list);
zval *kaq_get_curl_req_headers(zend_long id);
void kaq_free_curl_req_headers(zend_long id);

/* Response headers, name to value, of an easy handle since they were last freed. */
void kaq_insert_curl_res_headers(zend_long id, const char *line);
zval *kaq_get_curl_res_headers(zend_long id);
void kaq_free_curl_res_headers(zend_long id);

/* The easy handles of a multi handle, in the order in which they were added: an array of numbers.
 * The multi handle itself keeps its easy handles alive. A second reference here would keep them
 * beyond its end, with their connections, and from the engine's search for cycles. */
void kaq_curl_multi_add_child(zend_long multi_id, const zval *easy);
zval *kaq_curl_multi_get_children(zend_long multi_id);
void kaq_curl_multi_remove_child(zend_long multi_id, zend_long easy_id);
void kaq_curl_multi_remove_all_children(zend_long multi_id);

/* Which of them have become spans. */
int kaq_curl_multi_is_reported(zend_long multi_id, zend_long easy_id);
void kaq_curl_multi_mark_reported(zend_long multi_id, zend_long easy_id);
void kaq_curl_multi_remove_reported(zend_long multi_id, zend_long easy_id);
void kaq_curl_multi_clear_reported(zend_long multi_id);

/* The span id that an easy handle's transfer was announced with. */
void kaq_curl_multi_store_spanid(zend_long easy_id, const char *span_id);
const char *kaq_curl_multi_get_spanid(zend_long easy_id);
void kaq_curl_multi_remove_spanid(zend_long easy_id);

/* The entry of a number in one of the stores; null when there is none. The array may be null. */
zval *kaq_hash_find_by_id(zval *array, zend_long id);
void kaq_hash_delete_by_id(zval *array, zend_long id);
/* The entry, or a new empty array put in its place. Null for a null array. */
zval *kaq_hash_get_or_create_array(zval *array, zend_long id);
