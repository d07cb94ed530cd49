#include "json/kaq_json.h"
#include "spans/kaq_util.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <stdlib.h>

void kaq_set_function_priority(kaq_function *fi, int priority) {
	if (fi) {
		fi->priority = (uint8_t)priority;
	}
}

/* A second call on one span replaces the earlier text. */
void kaq_take_text(kaq_function *fi, char *_arg_data::*field, char *text) {
	_arg_data *arg = kaq_arguments_of(fi);
	if (arg) {
		free(arg->*field);
		arg->*field = text;
	} else {
		free(text);
	}
}

void kaq_set_method_dbconnect(kaq_function *fi, const char *host, long port) {
	fi->type = DBCONNECT;
	kaq_take_text(fi, &_arg_data::dbconnectHost, kaq_strdup(host && *host ? host : "localhost"));
	if (fi->arg_data) {
		fi->arg_data->dbconnectPort = port;
	}
}

void kaq_set_method_dbname(kaq_function *fi, const char *name) {
	fi->type = DBCONNECT;
	if (name) {
		kaq_take_text(fi, &_arg_data::dbname, kaq_strdup(name));
	}
}

void kaq_set_method_dbquery(kaq_function *fi, const char *query) {
	fi->type = DBQUERY;
	if (query) {
		kaq_take_text(fi, &_arg_data::query, kaq_strdup(query));
	}
}

void kaq_set_method_url(kaq_function *fi, const char *url) {
	fi->type = URL;
	if (url) {
		kaq_take_text(fi, &_arg_data::url, kaq_strdup(url));
	}
}

void kaq_set_method_none(kaq_function *fi) {
	fi->type = NONE;
}

void kaq_mark_component_failed(kaq_function *fi, int fail_type) {
	if (fail_type == FAIL_TYPE_EXCEPTION) {
		fi->isFault = 1;
	} else if (fail_type == FAIL_TYPE_ERROR) {
		fi->isError = 1;
	}
}

void kaq_set_external_call_status(kaq_function *fi, int code) {
	_arg_data *arg = kaq_arguments_of(fi);
	if (arg) {
		arg->externalStatusCode = code;
	}
}

void kaq_set_external_call_req_headers(kaq_function *fi, zval *header_lines) {
	if (!header_lines || Z_TYPE_P(header_lines) != IS_ARRAY) {
		return;
	}
	zval map;
	array_init(&map);
	zval *line;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(header_lines), line) {
		if (Z_TYPE_P(line) == IS_STRING) {
			kaq_add_header_line(&map, Z_STRVAL_P(line));
		}
	}
	ZEND_HASH_FOREACH_END();
	/* What identifies the account stays out of payloads. */
	zend_hash_str_del(Z_ARRVAL(map), "X-Skelvor-Id", strlen("X-Skelvor-Id"));
	kaq_take_text(fi, &_arg_data::externalReqHeaders, kaq_encode_zval_to_json(&map));
	zval_ptr_dtor(&map);
}

void kaq_set_external_call_res_headers(kaq_function *fi, zval *headers) {
	if (headers) {
		kaq_take_text(fi, &_arg_data::externalResHeaders, kaq_encode_zval_to_json(headers));
	}
}
