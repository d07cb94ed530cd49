#include "util/known_keys.h"

#include "util/kaq_util_functions.h"

#define KAQ_TEXT_OF_KEY(name, text) text,
static const char *const texts[KAQ_KEYS] = {KAQ_KNOWN_KEYS(KAQ_TEXT_OF_KEY)};

zend_string *kaq_keys[KAQ_KEYS];

void kaq_make_keys(void) {
	for (int i = 0; i < KAQ_KEYS; i++) {
		kaq_keys[i] = zend_string_init(texts[i], strlen(texts[i]), 1);
		zend_string_hash_val(kaq_keys[i]);
	}
}

void kaq_free_keys(void) {
	for (zend_string *&key : kaq_keys) {
		zend_string_release(key);
		key = nullptr;
	}
}

const char *kaq_server_text(kaq_key key) {
	const zval *server = &PG(http_globals)[TRACK_VARS_SERVER];
	if (Z_TYPE_P(server) != IS_ARRAY) {
		return "";
	}
	const zval *value = zend_hash_find(Z_ARRVAL_P(server), kaq_keys[key]);
	return php_is_zval_non_empty_string(value) ? Z_STRVAL_P(value) : "";
}
