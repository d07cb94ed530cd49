#include "util/kaq_util_functions.h"

#include "util/engine_access.h"
#include "util/header_line.h"
#include "util/kaq_aside.h"
#include "util/kaq_strings.h"

#include <string.h>

/* As large as an array's record: for each size in use the allocator prepares a page in every
 * request, and that one is in use anyway. */
zval *php_zval_alloc(void) {
	static_assert(sizeof(zval) <= sizeof(zend_array), "it fits");
	zval *value = (zval *)emalloc(sizeof(zend_array));
	ZVAL_NULL(value);
	return value;
}

void php_zval_free(zval *value) {
	if (value) {
		zval_ptr_dtor(value);
		efree(value);
	}
}

/* The caller gets a complete array or, after a bailout at the memory limit, none: shutdown
 * functions, which run after it, must not find half of one. */
zval *kaq_new_array(void) {
	zval *value = php_zval_alloc();
	array_init(value);
	return value;
}

void kaq_zval_release(zval **slot) {
	zval *value = *slot;
	*slot = nullptr;
	php_zval_free(value);
}

zval *php_call_user_func(const char *name, uint32_t count, zval *args) {
	zend_function *function = kaq_find_callable_function(name, strlen(name));
	if (!function || EG(exception)) {
		return nullptr;
	}
	zval *result = php_zval_alloc();
	kaq_call_internal(function, count, args, result);
	if (Z_TYPE_P(result) == IS_UNDEF) {
		ZVAL_NULL(result);
		kaq_zval_release(&result);
	}
	return result;
}

zval *php_call(const char *name, zval *arg1, zval *arg2, zval *arg3) {
	zval *given[KAQ_MAX_CALL_ARGS] = {arg1, arg2, arg3};
	zval args[KAQ_MAX_CALL_ARGS];
	uint32_t count = 0;
	while (count < KAQ_MAX_CALL_ARGS && given[count]) {
		ZVAL_COPY_VALUE(&args[count], given[count]);
		count++;
	}
	return php_call_user_func(name, count, args);
}

zval *php_call_unnoticed(const char *name, zval *arg1, zval *arg2, zval *arg3) {
	zval *volatile result = nullptr;
	volatile int caught = 0;
	kaq_aside aside;
	kaq_aside_begin(&aside);
	zend_try {
		result = php_call(name, arg1, arg2, arg3);
		kaq_aside_drop(&aside);
	}
	zend_catch {
		caught = 1;
	}
	zend_end_try();
	kaq_aside_end(&aside);
	if (caught) {
		zend_bailout();
	}
	return result;
}

zval *php_get_constant(const char *name) {
	return (zval *)zend_get_constant_str(name, strlen(name));
}

int php_is_zval_valid_string(const zval *value) {
	return value && Z_TYPE_P(value) == IS_STRING;
}

int php_is_zval_valid_array(const zval *value) {
	return value && Z_TYPE_P(value) == IS_ARRAY;
}

int php_is_zval_valid_integer(const zval *value) {
	return value && Z_TYPE_P(value) == IS_LONG;
}

int php_is_zval_valid_curl_handle(const zval *value) {
	return kaq_is_curl_handle(value);
}

int php_is_zval_true(zval *value) {
	return value && zend_is_true(value);
}

void kaq_add_assoc_zval_ex(zval *array, const char *key, size_t key_length, zval *value) {
	Z_TRY_ADDREF_P(value);
	zend_hash_str_update(Z_ARRVAL_P(array), key, key_length, value);
}

void kaq_add_assoc_zval(zval *array, const char *key, zval *value) {
	kaq_add_assoc_zval_ex(array, key, strlen(key), value);
}

int php_is_zval_non_empty_string(const zval *value) {
	return value && Z_TYPE_P(value) == IS_STRING && Z_STRLEN_P(value) > 0;
}

const char *kaq_get_server_global(const char *name) {
	zval *server = &PG(http_globals)[TRACK_VARS_SERVER];
	if (Z_TYPE_P(server) != IS_ARRAY) {
		return "";
	}
	zval *value = zend_hash_str_find(Z_ARRVAL_P(server), name, strlen(name));
	return php_is_zval_non_empty_string(value) ? Z_STRVAL_P(value) : "";
}

zval *kaq_backtrace(int limit) {
	zval *frames = php_zval_alloc();
	kaq_fetch_backtrace(frames, limit);
	return frames;
}

char *kaq_get_header_value(const zval *headers, const char *name) {
	if (!headers || Z_TYPE_P(headers) != IS_ARRAY) {
		return nullptr;
	}
	zval *value = zend_hash_str_find(Z_ARRVAL_P(headers), name, strlen(name));
	return value && Z_TYPE_P(value) == IS_STRING ? kaq_strdup(Z_STRVAL_P(value)) : nullptr;
}

void kaq_add_header_line(zval *map, const char *line) {
	char name[KAQ_HEADER_NAME_SIZE] = "";
	char value[KAQ_HEADER_VALUE_SIZE] = "";
	kaq_header_to_keyvalue(line, name, sizeof(name), value, sizeof(value));
	if (name[0]) {
		add_assoc_string(map, name, value);
	}
}
