#include "curl/curl_options.h"

#include "curl/curl_stores.h"
#include "util/kaq_util_functions.h"

/* curl_setopt accepts "10023" and "1.0023e4" as 10023. */
bool kaq_is_header_option(const zval *option) {
	zval *constant = php_get_constant("CURLOPT_HTTPHEADER");
	if (!constant || Z_TYPE_P(option) > IS_STRING) {
		return false;
	}
	zend_long number = Z_TYPE_P(option) == IS_STRING
						   ? zend_dval_to_lval(zval_get_double((zval *)option))
						   : zval_get_long((zval *)option);
	return number == Z_LVAL_P(constant);
}

static void kaq_copy_properties(zval *list, zval *object) {
	HashTable *properties = Z_OBJPROP_P(object);
	array_init(list);
	zval *value;
	ZEND_HASH_FOREACH_VAL_IND(properties, value) {
		ZVAL_DEREF(value);
		Z_TRY_ADDREF_P(value);
		add_next_index_zval(list, value);
	}
	ZEND_HASH_FOREACH_END();
}

static void kaq_save_header_object(zval *handle, zval *object) {
	if (instanceof_function(Z_OBJCE_P(object), zend_ce_traversable)) {
		zval *list = php_call_unnoticed("iterator_to_array", object, nullptr, nullptr);
		bool is_read = php_is_zval_valid_array(list);
		if (is_read) {
			kaq_curl_save_req_headers(handle, list);
		}
		php_zval_free(list);
		if (is_read) {
			return;
		}
	}
	zval list;
	kaq_copy_properties(&list, object);
	kaq_curl_save_req_headers(handle, &list);
	zval_ptr_dtor(&list);
}

void kaq_save_header_option(zval *handle, zval *value) {
	ZVAL_DEREF(value);
	if (!php_is_zval_valid_curl_handle(handle)) {
		return;
	}
	kaq_curl_follow(handle);
	kaq_follow_clones(handle, kaq_inherit_header_option);
	if (Z_TYPE_P(value) == IS_ARRAY) {
		kaq_curl_save_req_headers(handle, value);
	} else if (Z_TYPE_P(value) == IS_OBJECT) {
		kaq_save_header_object(handle, value);
	}
}

void kaq_copy_saved_headers(zval *copy, const zval *handle) {
	zval *saved = kaq_get_curl_req_headers(kaq_zval_resource_id(handle));
	if (saved) {
		ZVAL_COPY(copy, saved);
	} else {
		ZVAL_NULL(copy);
	}
}

void kaq_inherit_header_option(zval *handle, zval *copy) {
	zval *saved = kaq_get_curl_req_headers(kaq_zval_resource_id(handle));
	if (saved) {
		zval headers;
		ZVAL_COPY(&headers, saved);
		kaq_save_header_option(copy, &headers);
		zval_ptr_dtor(&headers);
	}
}
