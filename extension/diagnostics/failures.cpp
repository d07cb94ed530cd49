#include "diagnostics/stacktrace.h"

#include "json/kaq_json.h"
#include "spans/kaq_util.h"
#include "util/engine_access.h"
#include "util/kaq_aside.h"
#include "util/kaq_clock.h"
#include "util/kaq_util_functions.h"
#include "util/memory_limit.h"

#include <string.h>

kaq_throw_hook_t old_exception_cb;
kaq_error_cb_t old_error_cb;

/* Later engines add flags to the type. */
#define KAQ_ERROR_TYPES ((1 << 15) - 1)
#define KAQ_ENDS_REQUEST \
	(E_ERROR | E_PARSE | E_CORE_ERROR | E_COMPILE_ERROR | E_USER_ERROR | E_RECOVERABLE_ERROR)

/* Values of kaq.track_errors, the lowest severity recorded. */
enum kaq_severity { KAQ_NOTICE = 1, KAQ_WARNING = 2, KAQ_ERROR = 3 };

static kaq_severity kaq_severity_of(int type) {
	switch (type) {
	case E_NOTICE:
	case E_USER_NOTICE:
	case KAQ_E_STRICT:
	case E_DEPRECATED:
	case E_USER_DEPRECATED:
		return KAQ_NOTICE;
	case E_WARNING:
	case E_CORE_WARNING:
	case E_COMPILE_WARNING:
	case E_USER_WARNING:
		return KAQ_WARNING;
	default:
		return KAQ_ERROR;
	}
}

static const char *kaq_level_text(kaq_severity severity) {
	if (severity == KAQ_NOTICE) {
		return "Notice";
	}
	return severity == KAQ_WARNING ? "Warning" : "Error";
}

static void kaq_append_text_field(smart_str *out, const char *key, const char *text) {
	kaq_buf_append(out, key, strlen(key));
	kaq_append_as_json_compatible_string_withquotes(out, text);
}

void kaq_make_einfo(const char *name, const char *file, zend_long line, uint64_t time,
					const char *level, const char *message, kaq_function *fi) {
	_arg_data *arg = kaq_arguments_of(fi);
	size_t *total = &kaq_get_globals()->failure_bytes;
	if (arg && *total < KAQ_MAX_FAILURE_BYTES) {
		smart_str *out = &arg->einfo;
		size_t before = kaq_buf_length(out);
		if (out->s) {
			kaq_buf_literal(out, ",");
		}
		kaq_buf_literal(out, "{");
		if (name) {
			kaq_append_text_field(out, "\"err_clz\":", name);
			kaq_buf_literal(out, ",");
		}
		if (file) {
			kaq_append_text_field(out, "\"filename\":", file);
			kaq_buf_literal(out, ",");
		}
		kaq_buf_literal(out, "\"linenumber\":");
		kaq_append_signed(out, line);
		kaq_buf_literal(out, ",\"time\":");
		kaq_append_unsigned_long_long(out, time);
		kaq_append_text_field(out, ",\"level\":", level);
		if (message && strlen(message) < KAQ_MAX_FAILURE_BYTES - *total) {
			kaq_append_text_field(out, ",\"str\":", message);
		}
		kaq_buf_literal(out, "}");
		*total += kaq_buf_length(out) - before;
	}
	if (!message || !strstr(message, "Stack trace:")) {
		kaq_make_stacktrace(fi);
	}
}

/* The current span, if there is an open one. Null in an unmonitored request. */
static kaq_function *kaq_open_function(zend_kaq_globals *g) {
	kaq_node *node = g->control_signal ? kaq_current_node(g) : nullptr;
	return node && node->data.state == KAQ_NODE_OPEN ? &node->data.function_info : nullptr;
}

/* Recording allocates, and must not drive a script that is near its memory limit into a fatal
 * error. */
static void kaq_record_begin(zend_kaq_globals *g) {
	g->is_recording_failure = 1;
	kaq_memory_limit_lift();
}

static void kaq_record_end(zend_kaq_globals *g) {
	kaq_memory_limit_restore();
	g->is_recording_failure = 0;
}

static void kaq_record_error(kaq_function *fi, kaq_severity severity, const char *file,
							 uint32_t line, const char *message) {
	kaq_mark_component_failed(fi, FAIL_TYPE_ERROR);
	kaq_set_function_priority(fi, PRIORITY_1);
	kaq_make_einfo("ERROR", file ? file : "", line, kaq_now_ms(), kaq_level_text(severity),
				   message ? message : "", fi);
}

/* An error in a call that the extension makes is not the script's, unless it ends the request. */
static bool kaq_looks_at_error(const zend_kaq_globals *g, int type) {
	return (int)kaq_severity_of(type) >= g->track_errors && g->error_count < KAQ_MAX_ERRORS &&
		   !g->is_recording_failure && (!kaq_in_unnoticed_call() || (type & KAQ_ENDS_REQUEST));
}

void kaq_error_cb(KAQ_ERROR_CB_PARAMS) {
	zend_kaq_globals *g = kaq_get_globals();
	int plain_type = type & KAQ_ERROR_TYPES;
	if (kaq_looks_at_error(g, plain_type)) {
		kaq_function *fi = kaq_open_function(g);
		if (fi) {
			kaq_record_begin(g);
			kaq_message text;
			KAQ_ERROR_MESSAGE(text);
			kaq_record_error(fi, kaq_severity_of(plain_type), KAQ_ERROR_FILE, error_lineno,
							 text.text);
			kaq_message_free(&text);
			kaq_record_end(g);
		}
		g->error_count++;
	}
	old_error_cb(KAQ_ERROR_CB_ARGS);
}

/* Counts the exception if its class has a counter, and returns whether it has. The names belong to
 * the engine: a class lives until its request has ended, and so does its name; the counters are
 * written and dropped before that. */
static bool kaq_count_again(zend_kaq_globals *g, const char *name) {
	for (int i = 0; i < g->exception_count; i++) {
		if (strcmp(g->exceptionslist[i]->name, name) == 0) {
			g->exceptionslist[i]->count++;
			return true;
		}
	}
	return false;
}

static void kaq_record_exception(kaq_function *fi, const char *name, zend_object *exception) {
	kaq_mark_component_failed(fi, FAIL_TYPE_EXCEPTION);
	kaq_set_function_priority(fi, PRIORITY_1);
	zend_string *file = kaq_property_text(exception, "file");
	zend_string *message = kaq_property_text(exception, "message");
	kaq_make_einfo(name, ZSTR_VAL(file), kaq_property_number(exception, "line"), kaq_now_ms(),
				   "Warning", ZSTR_VAL(message), fi);
	zend_string_release(file);
	zend_string_release(message);
}

static void kaq_take_exception(zend_kaq_globals *g, zend_object *exception) {
	const char *name = ZSTR_VAL(exception->ce->name);
	bool is_known = kaq_count_again(g, name);
	kaq_function *fi = kaq_open_function(g);
	if (fi) {
		kaq_record_begin(g);
		kaq_record_exception(fi, name, exception);
		kaq_record_end(g);
	}
	if (!is_known) {
		g->exceptionslist[g->exception_count]->name = name;
		g->exceptionslist[g->exception_count]->count = 1;
		g->exception_count++;
	}
}

void kaq_throw_exception_hook(kaq_thrown *exception) {
	zend_kaq_globals *g = kaq_get_globals();
	if (exception && g->exception_count < KAQ_EXCEPTION_SLOTS && g->in_request &&
		!g->is_recording_failure && !kaq_in_unnoticed_call() &&
		!kaq_is_exit(kaq_thrown_object(exception))) {
		kaq_take_exception(g, kaq_thrown_object(exception));
	}
	if (old_exception_cb) {
		old_exception_cb(exception);
	}
}
