#include "diagnostics/stacktrace.h"

#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"
#include "util/memory_limit.h"

static const char *kaq_frame_text(HashTable *frame, const char *key, const char *fallback) {
	const zval *value = zend_hash_str_find(frame, key, strlen(key));
	return php_is_zval_non_empty_string(value) ? Z_STRVAL_P(value) : fallback;
}

static void kaq_append_frame(smart_str *out, HashTable *frame) {
	const zval *line = zend_hash_str_find(frame, "line", strlen("line"));
	if (out->s) {
		kaq_buf_literal(out, ",");
	}
	kaq_buf_literal(out, "[");
	kaq_append_as_json_compatible_string_withquotes(out, kaq_frame_text(frame, "class", ""));
	kaq_buf_literal(out, ",");
	kaq_append_as_json_compatible_string_withquotes(
		out, kaq_plain_name(kaq_frame_text(frame, "function", "main")));
	kaq_buf_literal(out, ",");
	kaq_append_as_json_compatible_string_withquotes(out, kaq_frame_text(frame, "file", ""));
	kaq_buf_literal(out, ",");
	kaq_append_signed(out, line && Z_TYPE_P(line) == IS_LONG ? Z_LVAL_P(line) : 0);
	kaq_buf_literal(out, "]");
}

void kaq_append_backtrace(smart_str *out) {
	int depth = kaq_get_globals()->max_stack_depth;
	int limit = depth <= KAQ_MAX_STACK_DEPTH ? depth : KAQ_MAX_STACK_DEPTH;
	zval *frames = kaq_backtrace(limit > 0 ? limit : 0);
	zval *frame;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(frames), frame) {
		if (Z_TYPE_P(frame) == IS_ARRAY) {
			kaq_append_frame(out, Z_ARRVAL_P(frame));
		}
	}
	ZEND_HASH_FOREACH_END();
	php_zval_free(frames);
}

void kaq_make_stacktrace(kaq_function *fi) {
	size_t *total = &kaq_get_globals()->failure_bytes;
	_arg_data *arg = kaq_arguments_of(fi);
	if (!arg || arg->stacktrace || *total >= KAQ_MAX_FAILURE_BYTES) {
		return;
	}
	smart_str text = {nullptr, 0};
	kaq_memory_limit_lift();
	kaq_append_backtrace(&text);
	kaq_memory_limit_restore();
	if (text.s) {
		kaq_buf_terminate(&text);
		arg->stacktrace = kaq_strdup(ZSTR_VAL(text.s));
		*total += kaq_buf_length(&text);
	}
	kaq_buf_free(&text);
}

void kaq_print_user_stacktrace(void) {
	smart_str text = {nullptr, 0};
	kaq_append_backtrace(&text);
	kaq_buf_literal(&text, "\t");
	kaq_buf_terminate(&text);
	char *copy = estrdup(ZSTR_VAL(text.s));
	kaq_buf_free(&text);
	php_printf("kaq st: %s", copy);
	efree(copy);
}
