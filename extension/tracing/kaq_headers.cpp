#include "tracing/kaq_headers.h"

#include "util/header_line.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <ctype.h>
#include <stdlib.h>
#include <strings.h>

static const sapi_header_struct *kaq_first_header(zend_llist_position *position) {
	return (const sapi_header_struct *)zend_llist_get_first_ex(&SG(sapi_headers).headers, position);
}

static const sapi_header_struct *kaq_next_header(zend_llist_position *position) {
	return (const sapi_header_struct *)zend_llist_get_next_ex(&SG(sapi_headers).headers, position);
}

zval *kaq_response_headers_zv(void) {
	zval *map = kaq_new_array();
	zend_llist_position position;
	for (const sapi_header_struct *line = kaq_first_header(&position); line;
		 line = kaq_next_header(&position)) {
		kaq_add_header_line(map, line->header);
	}
	return map;
}

char *kaq_search_response_header(const char *prefix) {
	size_t length = strlen(prefix);
	zend_llist_position position;
	for (const sapi_header_struct *line = kaq_first_header(&position); line;
		 line = kaq_next_header(&position)) {
		if (line->header_len > length && strncasecmp(line->header, prefix, length) == 0) {
			const char *value = line->header + length;
			while (isspace((unsigned char)*value)) {
				value++;
			}
			return kaq_strdup(value);
		}
	}
	return nullptr;
}

long kaq_get_response_content_length(void) {
	char *value = kaq_search_response_header("content-length:");
	long length = value ? strtol(value, nullptr, 10) : 0;
	free(value);
	return length;
}

int kaq_get_response_code(void) {
	int code = SG(sapi_headers).http_response_code;
	return code < 1 ? 200 : code;
}

int kaq_add_response_header(const char *name, const char *value) {
	char *text = header_format_name_value(name, value, 0);
	if (!text) {
		return 0;
	}
	sapi_header_line line = {text, (uint32_t)strlen(text), 0};
	int status = sapi_header_op(SAPI_HEADER_REPLACE, &line);
	free(text);
	return status != FAILURE;
}
