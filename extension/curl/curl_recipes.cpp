#include "curl/curl_recipes.h"

#include "curl/curl_headers.h"
#include "curl/curl_options.h"
#include "curl/curl_stores.h"
#include "curl/curl_transfer.h"
#include "state/php_kaq.h"
#include "tracing/distributedTrace.h"
#include "tracing/trace_context.h"
#include "util/kaq_util_functions.h"
#include "util/memory_limit.h"

#include <stdio.h>

#define KAQ_SETOPT_NAME_SIZE 32

static bool kaq_keeps_headers(void) {
	const zend_kaq_globals *g = kaq_get_globals();
	return g->capture_distributed_trace || g->capture_httpcall_metadata;
}

/* The layouts here start with one or two handles. */
static kaq_fit kaq_read_curl_arguments(const kaq_call *call, const char *layout,
									   kaq_arguments *arguments) {
	kaq_fit fit = kaq_read_arguments(call, layout, false, arguments);
	for (const char *letter = layout; *letter == 'r' && fit == KAQ_FITTED; letter++) {
		if (!kaq_may_be_curl(arguments->value[letter - layout])) {
			fit = KAQ_UNFIT;
		}
	}
	return fit;
}

/* For functions whose spans have no URL, even if the arguments cannot be read. Returns false in
 * that case; kaq_finish_unread() has then finished the call. */
static bool kaq_read_handles(const kaq_call *call, const char *layout, kaq_arguments *arguments) {
	kaq_fit fit = kaq_read_curl_arguments(call, layout, arguments);
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
		kaq_set_method_none(call->fi);
	}
	return fit == KAQ_FITTED;
}

void kaq_record(const kaq_call *call, kaq_curl_init) {
	int caught = kaq_call_protected(call);
	kaq_set_method_none(call->fi);
	if (kaq_get_globals()->capture_httpcall_metadata && !caught) {
		kaq_curl_response_headers_callback(call->return_value);
	}
	kaq_pass_on(caught);
}

/* Whether curl has set the list. When it throws, the reason may be another option or an element of
 * the list, and an array has been set nevertheless. An object may be the very thing that it
 * refuses, and so may an option that is not a number. */
static bool kaq_is_taken(bool option_is_number, const zval *value) {
	ZVAL_DEREF(value);
	return !EG(exception) || (option_is_number && Z_TYPE_P(value) == IS_ARRAY);
}

void kaq_record(const kaq_call *call, kaq_curl_setopt) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_arguments(call, "zzz", false, &arguments);
	const zval *option = arguments.value[1];
	if (php_is_zval_valid_integer(option)) {
		char name[KAQ_SETOPT_NAME_SIZE];
		snprintf(name, sizeof(name), "%s (%ld)", "curl_setopt", (long)Z_LVAL_P(option));
		kaq_update_method_name(call->fi, name);
	}
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
		return;
	}
	int caught = kaq_call_protected(call);
	if (kaq_keeps_headers() && kaq_is_header_option(option) &&
		kaq_is_taken(php_is_zval_valid_integer(option), arguments.value[2])) {
		kaq_save_header_option(arguments.value[0], arguments.value[2]);
	}
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_curl_setopt_array) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_arguments(call, "za", false, &arguments);
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
		return;
	}
	kaq_pass_on(kaq_call_protected(call));
	zval *options = arguments.value[1];
	if (!kaq_keeps_headers() || !php_is_zval_valid_array(options)) {
		return;
	}
	zend_ulong option;
	zend_string *name;
	zval *value;
	ZEND_HASH_FOREACH_KEY_VAL(Z_ARRVAL_P(options), option, name, value) {
		if (!name && option == KAQ_CURLOPT_HTTPHEADER && kaq_is_taken(true, value)) {
			kaq_save_header_option(arguments.value[0], value);
		}
	}
	ZEND_HASH_FOREACH_END();
}

void kaq_record(const kaq_call *call, kaq_curl_exec) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_curl_arguments(call, "r", &arguments);
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
		return;
	}
	zval *handle = arguments.value[0];
	zval headers;
	kaq_copy_saved_headers(&headers, handle);
	if (kaq_get_globals()->capture_distributed_trace) {
		curl_exec_pre_req_header(handle, &headers, call->node, 0);
	}
	int caught = kaq_call_protected(call);
	/* The memory limit may be what ended the call. */
	kaq_memory_limit_lift();
	kaq_describe_blocking_transfer(call->fi, handle, &headers);
	zval_ptr_dtor(&headers);
	kaq_memory_limit_restore();
	kaq_pass_on(caught);
}

static void kaq_announce_transfer(zval *easy) {
	kaq_node *temp_node = kaq_create_new_node();
	if (!temp_node) {
		return;
	}
	kaq_assign_span_id(temp_node);
	kaq_curl_multi_store_spanid(kaq_zval_resource_id(easy), temp_node->data.function_info.span_id);
	if (kaq_get_globals()->capture_distributed_trace) {
		zval headers;
		kaq_copy_saved_headers(&headers, easy);
		curl_exec_pre_req_header(easy, &headers, temp_node, 1);
		zval_ptr_dtor(&headers);
	}
	kaq_free_node(temp_node);
}

/* A handle that is refused may be in use by another multi handle, with the span id that it got
 * there. */
static bool kaq_is_refusal(const zval *result) {
	return EG(exception) || (Z_TYPE_P(result) == IS_LONG && Z_LVAL_P(result) != 0);
}

void kaq_record(const kaq_call *call, kaq_curl_multi_add_handle) {
	kaq_arguments arguments;
	if (!kaq_read_handles(call, "rr", &arguments)) {
		return;
	}
	zval *multi = arguments.value[0];
	zval *easy = arguments.value[1];
	int caught = kaq_call_protected(call);
	if (!kaq_is_refusal(call->return_value)) {
		kaq_curl_follow(multi);
		kaq_curl_follow(easy);
		kaq_curl_multi_add_child(kaq_zval_resource_id(multi), easy);
		kaq_announce_transfer(easy);
	}
	kaq_set_method_none(call->fi);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_curl_multi_exec) {
	kaq_arguments arguments;
	if (!kaq_read_handles(call, "rz/", &arguments)) {
		return;
	}
	int caught = kaq_call_protected(call);
	kaq_memory_limit_lift();
	kaq_report_transfers(call->node, kaq_zval_resource_id(arguments.value[0]));
	kaq_memory_limit_restore();
	kaq_set_method_none(call->fi);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_curl_multi_remove_handle) {
	kaq_arguments arguments;
	if (!kaq_read_handles(call, "rr", &arguments)) {
		return;
	}
	zend_long multi_id = kaq_zval_resource_id(arguments.value[0]);
	zend_long easy_id = kaq_zval_resource_id(arguments.value[1]);
	int caught = kaq_call_protected(call);
	if (!kaq_is_refusal(call->return_value)) {
		kaq_curl_multi_remove_child(multi_id, easy_id);
		kaq_curl_multi_remove_reported(multi_id, easy_id);
		kaq_curl_multi_remove_spanid(easy_id);
	}
	kaq_set_method_none(call->fi);
	kaq_pass_on(caught);
}

static void kaq_drop_span_ids(zval *children) {
	if (!php_is_zval_valid_array(children)) {
		return;
	}
	const zval *number;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(children), number) {
		kaq_curl_multi_remove_spanid(Z_LVAL_P(number));
	}
	ZEND_HASH_FOREACH_END();
}

void kaq_record(const kaq_call *call, kaq_curl_multi_close) {
	kaq_arguments arguments;
	if (!kaq_read_handles(call, "r", &arguments)) {
		return;
	}
	zend_long multi_id = kaq_zval_resource_id(arguments.value[0]);
	kaq_drop_span_ids(kaq_curl_multi_get_children(multi_id));
	kaq_curl_multi_remove_all_children(multi_id);
	kaq_curl_multi_clear_reported(multi_id);
	int caught = kaq_call_protected(call);
	kaq_set_method_none(call->fi);
	kaq_pass_on(caught);
}
