/*
 * The one place that knows how the engines differ. The sources keep the shape of PHP 7.0, thread
 * safe; what a later engine does otherwise is turned back into that shape here. Capabilities are
 * named, never versions; blocks stand in order of age, oldest first.
 *
 * Every other file includes this header for the engine's own headers too. What needs no adapting
 * stands in util/engine_access.h.
 */
#pragma once

#include "php.h"
#include "php_ini.h"
#include "php_main.h"
#include "php_output.h"
#include "php_variables.h"
#include "SAPI.h"
#include "ext/standard/info.h"
#include "zend_builtin_functions.h"
#include "zend_exceptions.h"
#include "zend_interfaces.h"
#include "zend_smart_str.h"

#include "util/kaq_clock.h"

/* Thread-safe engines keep module globals in a per-thread table, the others in one static. */
#ifdef ZTS
#define KAQ_THREAD_SAFE 1
/* Few bytes in the static block of every thread, and no call to find them. */
#define KAQ_THREAD_LOCAL_MODEL __attribute__((tls_model("initial-exec"), visibility("hidden")))
extern TSRM_TLS void *TSRMLS_CACHE KAQ_THREAD_LOCAL_MODEL;
/* The thread's module globals, beside the clock that every call reads too, so that they are one
 * load away instead of four. */
#define KAQ_MODULE_GLOBALS_POINTER(module) ((zend_##module##_globals *)kaq_clock_thread.companion)
#define KAQ_MODULE_GLOBALS_KEY(module) module##_globals_id
#else
#define KAQ_THREAD_SAFE 0
#define KAQ_MODULE_GLOBALS_POINTER(module) (&module##_globals)
#define KAQ_MODULE_GLOBALS_KEY(module) 0
#endif

/* Makes the engine's per-thread storage reachable from this module, and in it the module globals
 * of that key. Call it (through kaq_bind_thread) on a thread before anything else, and again at
 * each request start: a thread may have been given new storage. */
void kaq_bind_module_globals(int key);

/* Functions whose record, and name, may be gone before their call has ended. */
#define KAQ_FUNCTION_MAY_GO (ZEND_ACC_CLOSURE | ZEND_ACC_CALL_VIA_TRAMPOLINE)

/* Once per module start, before anything else of this header is used. */
void kaq_engine_startup(void);

/* A function's name as the payload has it: a closure is "{closure}", where later engines add the
 * file and line of where it stands. The string lives as long as the function's own, without a
 * reference of the caller's. REQUIRES: the function has a name. */
#if PHP_VERSION_ID < 80400
static inline zend_string *kaq_name_of(const zend_function *function) {
	return function->common.function_name;
}
static inline const char *kaq_plain_name(const char *name) {
	return name;
}
#else
zend_string *kaq_closure_name(const zend_function *function);
static inline zend_string *kaq_name_of(const zend_function *function) {
	return function->common.fn_flags & ZEND_ACC_CLOSURE ? kaq_closure_name(function)
														: function->common.function_name;
}
/* The same for a name alone. */
const char *kaq_plain_name(const char *name);
#endif

/* An update handler of a setting. Ours look at the new value only. */
#define KAQ_INI_HANDLER(name) PHP_INI_MH(name)

/* Starts the engine with one built-in module more, for programs that embed it. */
#if PHP_VERSION_ID < 80200
#define KAQ_STARTUP_MODULE(sapi, module) php_module_startup(sapi, module, 1)
#else
#define KAQ_STARTUP_MODULE(sapi, module) php_module_startup(sapi, module)
#endif
/* Whether the embed library frees the settings' text that it is handed. */
#if PHP_VERSION_ID < 80400
#define KAQ_EMBED_FREES_SETTINGS 1
#else
#define KAQ_EMBED_FREES_SETTINGS 0
#endif
#define KAQ_INI_HANDLER_IGNORES() \
	((void)entry, (void)mh_arg1, (void)mh_arg2, (void)mh_arg3, (void)stage)

/* Exception hook and error callback: the parameter lists follow the engine, the bodies pass them
 * on untouched with KAQ_ERROR_CB_ARGS. Within the callback KAQ_ERROR_FILE is the file's name and
 * KAQ_ERROR_MESSAGE fills a kaq_message, which may borrow from the arguments. */
struct kaq_message {
	const char *text;
	char *owned;
};
void kaq_message_free(kaq_message *message);
#if PHP_VERSION_ID < 80000
typedef zval kaq_thrown;
#define KAQ_ERROR_CB_PARAMS                                                                \
	int type, const char *error_filename, const uint32_t error_lineno, const char *format, \
		va_list args
#define KAQ_ERROR_CB_ARGS type, error_filename, error_lineno, format, args
#define KAQ_ERROR_FILE error_filename
void kaq_format_message(kaq_message *message, const char *format, va_list args);
#define KAQ_ERROR_MESSAGE(message) kaq_format_message(&(message), format, args)
#elif PHP_VERSION_ID < 80100
typedef zend_object kaq_thrown;
#define KAQ_ERROR_CB_PARAMS \
	int type, const char *error_filename, const uint32_t error_lineno, zend_string *message
#define KAQ_ERROR_CB_ARGS type, error_filename, error_lineno, message
#define KAQ_ERROR_FILE error_filename
#define KAQ_ERROR_MESSAGE(taken) ((taken) = {message ? ZSTR_VAL(message) : nullptr, nullptr})
#else
typedef zend_object kaq_thrown;
#define KAQ_ERROR_CB_PARAMS \
	int type, zend_string *error_filename, const uint32_t error_lineno, zend_string *message
#define KAQ_ERROR_CB_ARGS type, error_filename, error_lineno, message
#define KAQ_ERROR_FILE (error_filename ? ZSTR_VAL(error_filename) : nullptr)
#define KAQ_ERROR_MESSAGE(taken) ((taken) = {message ? ZSTR_VAL(message) : nullptr, nullptr})
#endif
/* Suggestions about style; engines give the type up one after the other. */
#define KAQ_E_STRICT (1 << 11)
zend_object *kaq_thrown_object(kaq_thrown *exception);
/* Whether it only unwinds the stack: later engines let exit, and the end of a fiber, travel as
 * exceptions. Such an object has nothing to read. */
bool kaq_is_exit(const zend_object *exception);

/* Whether an instruction calls a function; whether one passes a compiled variable by value. */
bool kaq_is_call(const zend_op *op);
bool kaq_passes_variable(const zend_op *op);

typedef void (*kaq_error_cb_t)(KAQ_ERROR_CB_PARAMS);
typedef void (*kaq_throw_hook_t)(kaq_thrown *exception);

/* A property of an object, read quietly. Null when the value is no object; a missing property
 * reads as the engine's null value. The result belongs to the object or to *rv. */
zval *kaq_read_property(zval *object, const char *name, size_t name_length, zval *rv);

/* Handles of some extensions (curl, pgsql) are resources, in later engines objects. */
#if PHP_VERSION_ID < 80000
#define KAQ_HANDLES_ARE_OBJECTS 0
#else
#define KAQ_HANDLES_ARE_OBJECTS 1
#endif

/* The number of a handle: of its resource or, in later engines, its object. */
zend_long kaq_zval_resource_id(const zval *handle);

/* Whether the value is a handle that curl_init made and that is not closed. */
bool kaq_is_curl_handle(const zval *value);

/* Whether a value that fits the letter "r" may be a curl handle of some kind: where handles are
 * resources the function itself finds out. */
bool kaq_may_be_curl(const zval *value);

/* The open curl handle of that number, without a reference of its own. False when there is
 * none. */
bool kaq_find_curl_handle(zend_long id, zval *handle);

/* Where a handle can be cloned: from now on `notice` is told of every clone of this one. The first
 * notice ever given counts for all. */
typedef void (*kaq_clone_notice)(zval *handle, zval *clone);
void kaq_follow_clones(zval *handle, kaq_clone_notice notice);

/* The number of a resource is never given out again within a request, that of an object is. A watch
 * is a table of the objects that live: when one goes away its entry is destroyed, and `forget` is
 * called with the entry; it may release other handles. The end does not call `forget`. A watch that
 * has not been started, or has been ended, is all zero: nothing is added to it, and ending it does
 * nothing. Engines with resources: nothing ever happens. */
typedef void (*kaq_handle_notice)(zval *entry);
void kaq_watch_handles_start(HashTable *watch, kaq_handle_notice forget);
void kaq_watch_handle(HashTable *watch, const zval *handle);
zend_long kaq_watched_id(const zval *entry);
void kaq_watch_handles_end(HashTable *watch);

/* Takes a pending interrupt (a signal for the script, its time limit), which the engine deals with
 * at the end of a call; and gives it back. */
bool kaq_take_interrupt(void);
void kaq_set_interrupt(void);

/* Takes the exception that an engine puts aside while another one is handled, and gives it back. */
#if PHP_VERSION_ID < 80600
static inline zend_object *kaq_take_previous_exception(void) {
	zend_object *previous = EG(prev_exception);
	EG(prev_exception) = nullptr;
	return previous;
}
static inline void kaq_set_previous_exception(zend_object *previous) {
	EG(prev_exception) = previous;
}
#else
static inline zend_object *kaq_take_previous_exception(void) {
	return nullptr;
}
static inline void kaq_set_previous_exception(zend_object *) {
}
#endif

/* Frees the texts of the engine's last error, which dangle then. */
void kaq_free_last_error(void);

/* Pushes the frame of a call that has no caller's code. */
#if PHP_VERSION_ID < 70400
#define KAQ_PUSH_CALL(function, count) \
	zend_vm_stack_push_call_frame(ZEND_CALL_TOP_FUNCTION, function, count, nullptr, nullptr)
#else
#define KAQ_PUSH_CALL(function, count) \
	zend_vm_stack_push_call_frame(ZEND_CALL_TOP_FUNCTION, function, count, nullptr)
#endif

/* A parse of arguments that fails warns, in later engines it throws. */
#if PHP_VERSION_ID < 80000
#define KAQ_PARSE_FAILURES_THROW 0
#else
#define KAQ_PARSE_FAILURES_THROW 1
#endif

/* Null for a scalar parameter is taken as the empty value, in later engines with a deprecation. */
#if PHP_VERSION_ID < 80100
#define KAQ_NULL_SCALARS_DEPRECATED 0
#else
#define KAQ_NULL_SCALARS_DEPRECATED 1
#endif

/* "12a" is taken for an integer parameter; later engines refuse it. */
#if PHP_VERSION_ID < 80000
#define KAQ_TRAILING_TEXT_FITS 1
#else
#define KAQ_TRAILING_TEXT_FITS 0
#endif

/* Whether the site has disabled the internal function. */
bool kaq_is_disabled_function(const zend_function *function);

/* Engines with fibers: from now on `notice` is told of every switch, before it happens, with a slot
 * of each fiber that is null at first. Once per module start; the engine forgets it at its end.
 * Engines without fibers: nothing. */
typedef void (*kaq_fiber_notice_t)(void **from, void **to);
void kaq_watch_fibers(kaq_fiber_notice_t notice);

/* Between these two, which nest, no fiber can be switched: code that tries gets an exception. */
void kaq_block_fibers(void);
void kaq_unblock_fibers(void);

/* The fiber that runs, without a reference; null outside of fibers. */
static inline void *kaq_running_fiber(void) {
#if PHP_VERSION_ID < 80100
	return nullptr;
#else
	return EG(active_fiber);
#endif
}

/* Whether fibers cannot be switched. The engine blocks them around destructors, too. */
#if PHP_VERSION_ID < 80100
static inline bool kaq_fibers_blocked(void) {
	return false;
}
#else
bool kaq_fibers_blocked(void);
#endif

/* After calls were cut off, with what the two above said before: that fiber runs again, and fibers
 * can be switched if they could. */
void kaq_set_running_fiber(void *fiber, bool blocked);

/* The class whose private members the engine lets code reach at the moment; in later engines only
 * while it is another than that of the running function. */
#if PHP_VERSION_ID < 70100
#define KAQ_SCOPE EG(scope)
#else
#define KAQ_SCOPE EG(fake_scope)
#endif
#if PHP_VERSION_ID < 80500
typedef zend_class_entry *kaq_scope;
#else
typedef const zend_class_entry *kaq_scope;
#endif

/* Whether a frame that runs a script has its variables in a table by name, too. */
static inline bool kaq_has_symbol_table(const zend_execute_data *frame) {
#if PHP_VERSION_ID < 70100
	return frame->symbol_table != nullptr;
#else
	return ZEND_CALL_INFO(frame) & ZEND_CALL_HAS_SYMBOL_TABLE;
#endif
}

/* Engines that compile while they run: the number of the compiled code that runs. */
static inline uint32_t kaq_running_trace(void) {
#if PHP_VERSION_ID < 80000
	return 0;
#else
	return EG(jit_trace_num);
#endif
}

static inline void kaq_set_running_trace(uint32_t trace) {
#if PHP_VERSION_ID < 80000
	(void)trace;
#else
	EG(jit_trace_num) = trace;
#endif
}

/* Engines with observers of calls: the innermost observed call; null where the engine tells nobody.
 */
static inline zend_execute_data *kaq_observed_call(void) {
#if PHP_VERSION_ID < 80400
	return nullptr;
#else
	return EG(current_observed_frame);
#endif
}

/* Tells the observers that the calls inside of that one have ended: all of them, where the engine
 * does not tell which it observes. The frames must still stand. */
void kaq_end_observed_calls(zend_execute_data *outer);

#if PHP_VERSION_ID < 80400
#define KAQ_CALLS_CAN_BE_OBSERVED 0
#else
#define KAQ_CALLS_CAN_BE_OBSERVED 1
#endif

/* Who watches calls of user functions without standing on the C stack. */
struct kaq_call_observer {
	/* Whether calls of that function may matter in this request; asked once in it. */
	bool (*is_wanted)(const zend_function *function);
	void (*begins)(zend_execute_data *call);
	/* Also where the request has ended in the middle of the call; kaq_observed_call() is another
	 * one then. */
	void (*ends)(zend_execute_data *call, zval *result);
	/* Before `ends`, for each call that kaq_end_observed_calls cuts off, innermost first. `place`
	 * is the observer's, 0 at the first of them. */
	void (*is_cut_off)(zend_execute_data *call, uintptr_t *place);
};

/* True where calls are told to the observer from now on, until the module ends: engines that tell
 * where it is that calls end in a bailout, when their modules start. The record must live on. */
bool kaq_observe_calls(const kaq_call_observer *observer);
