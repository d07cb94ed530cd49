/*
 * Keys that every request looks up in the engine's tables, as strings of the engine's with their
 * hashes. Made once per process, before the first look-up; read by all threads.
 */
#pragma once

#include "util/engine_compat.h"

#define KAQ_KNOWN_KEYS(KEY)                              \
	KEY(KAQ_KEY_SERVER, "_SERVER")                       \
	KEY(KAQ_KEY_REQUEST, "_REQUEST")                     \
	KEY(KAQ_KEY_HTTP_HOST, "HTTP_HOST")                  \
	KEY(KAQ_KEY_PHP_SELF, "PHP_SELF")                    \
	KEY(KAQ_KEY_REQUEST_METHOD, "REQUEST_METHOD")        \
	KEY(KAQ_KEY_QUERY_STRING, "QUERY_STRING")            \
	KEY(KAQ_KEY_ORIGINAL_URL, "HTTP_X_ORIGINAL_URL")     \
	KEY(KAQ_KEY_REQUEST_URI, "REQUEST_URI")              \
	KEY(KAQ_KEY_FORWARDED_PORT, "HTTP_X_FORWARDED_PORT") \
	KEY(KAQ_KEY_SERVER_PORT, "SERVER_PORT")

#define KAQ_NAME_KEY(name, text) name,
enum kaq_key { KAQ_KNOWN_KEYS(KAQ_NAME_KEY) KAQ_KEYS };
#undef KAQ_NAME_KEY

extern zend_string *kaq_keys[KAQ_KEYS];

void kaq_make_keys(void);
void kaq_free_keys(void);

/* The text of that server variable of the running request when it is a non-empty string, else "".
 * Never null; belongs to the engine. */
const char *kaq_server_text(kaq_key key);
