#include "util/kaq_aside.h"

#include <string.h>

/* Types of errors that end the request unless a handler takes them. */
#define KAQ_TAKEN_BY_HANDLERS (E_USER_ERROR | E_RECOVERABLE_ERROR)
/* A function that serves as an error handler: it ignores its arguments, has no effect, and does not
 * return false, which would pass the error on to the engine. */
#define KAQ_SILENT_HANDLER "kaq_agent_version"
/* At most this many of the script's error handlers, below the one in force, get a stand-in. */
#define KAQ_MAX_STAND_INS STACK_BLOCK_SIZE
/* A destructor may leave behind something that has to be released too, and so on without end: give
 * up after this many rounds. */
#define KAQ_MAX_DROPS 100

__thread int kaq_asides __attribute__((tls_model("initial-exec"), visibility("hidden")));

static void kaq_read_handlers(kaq_handlers *handlers) {
	ZVAL_COPY_VALUE(&handlers->error_handler, &EG(user_error_handler));
	ZVAL_COPY_VALUE(&handlers->exception_handler, &EG(user_exception_handler));
	handlers->error_level = EG(user_error_handler_error_reporting);
	handlers->error_handlers = EG(user_error_handlers);
	handlers->error_levels = EG(user_error_handlers_error_reporting);
	handlers->exception_handlers = EG(user_exception_handlers);
}

static void kaq_write_handlers(const kaq_handlers *handlers) {
	ZVAL_COPY_VALUE(&EG(user_error_handler), &handlers->error_handler);
	ZVAL_COPY_VALUE(&EG(user_exception_handler), &handlers->exception_handler);
	EG(user_error_handler_error_reporting) = handlers->error_level;
	EG(user_error_handlers) = handlers->error_handlers;
	EG(user_error_handlers_error_reporting) = handlers->error_levels;
	EG(user_exception_handlers) = handlers->exception_handlers;
}

static void kaq_make_stand_in(zval *made, const zval *handler) {
	ZVAL_UNDEF(made);
	if (Z_TYPE_P(handler) != IS_UNDEF) {
		ZVAL_STRING(made, KAQ_SILENT_HANDLER);
	}
}

/* A silent error handler for each of the script's, so that errors are swallowed even after the
 * called code has restored earlier handlers. Exception handlers are called only once all code has
 * returned, so they need no stand-ins. */
static void kaq_make_stand_ins(kaq_handlers *made, const kaq_handlers *own) {
	const zval *handlers = (const zval *)zend_stack_base(&own->error_handlers);
	const int *levels = (const int *)zend_stack_base(&own->error_levels);
	int count = zend_stack_count(&own->error_handlers);
	zend_stack_init(&made->error_handlers, sizeof(zval));
	zend_stack_init(&made->error_levels, sizeof(int));
	zend_stack_init(&made->exception_handlers, sizeof(zval));
	for (int i = count > KAQ_MAX_STAND_INS ? count - KAQ_MAX_STAND_INS : 0; i < count; i++) {
		zval handler;
		int level = levels[i] & KAQ_TAKEN_BY_HANDLERS;
		kaq_make_stand_in(&handler, &handlers[i]);
		zend_stack_push(&made->error_handlers, &handler);
		zend_stack_push(&made->error_levels, &level);
	}
	kaq_make_stand_in(&made->error_handler, &own->error_handler);
	made->error_level = own->error_level & KAQ_TAKEN_BY_HANDLERS;
	ZVAL_UNDEF(&made->exception_handler);
}

/* Whether releasing the handler may run script code. */
static bool kaq_is_live(const zval *handler) {
	return Z_TYPE_P(handler) != IS_UNDEF && Z_TYPE_P(handler) != IS_STRING;
}

static bool kaq_has_live(const zend_stack *handlers) {
	const zval *handler = (const zval *)zend_stack_base(handlers);
	for (int i = 0; i < zend_stack_count(handlers); i++) {
		if (kaq_is_live(&handler[i])) {
			return true;
		}
	}
	return false;
}

static void kaq_release_handler(zval *handler, bool live_too) {
	if (live_too || !kaq_is_live(handler)) {
		zval_ptr_dtor(handler);
	}
}

static void kaq_release_stack(zend_stack *handlers, bool live_too) {
	zval *handler = (zval *)zend_stack_base(handlers);
	for (int i = 0; i < zend_stack_count(handlers); i++) {
		kaq_release_handler(&handler[i], live_too);
	}
	zend_stack_destroy(handlers);
}

static void kaq_release_handlers(kaq_handlers *handlers, bool live_too) {
	kaq_release_handler(&handlers->error_handler, live_too);
	kaq_release_handler(&handlers->exception_handler, live_too);
	kaq_release_stack(&handlers->error_handlers, live_too);
	kaq_release_stack(&handlers->exception_handlers, live_too);
	zend_stack_destroy(&handlers->error_levels);
}

/* Returns whether script code may have run. */
static bool kaq_drop_handlers(const kaq_aside *aside) {
	kaq_handlers left;
	kaq_handlers stand_ins;
	kaq_read_handlers(&left);
	if (!kaq_is_live(&left.error_handler) && !kaq_is_live(&left.exception_handler) &&
		!kaq_has_live(&left.error_handlers) && !kaq_has_live(&left.exception_handlers)) {
		return false;
	}
	kaq_make_stand_ins(&stand_ins, &aside->handlers);
	kaq_write_handlers(&stand_ins);
	kaq_release_handlers(&left, true);
	return true;
}

/* Returns whether script code may have run. The first exit is kept in *exit. */
static bool kaq_drop_exception(zend_object **exit) {
	zend_object *raised = EG(exception);
	if (!raised) {
		return false;
	}
	EG(exception) = nullptr;
	if (kaq_is_exit(raised) && !*exit) {
		*exit = raised;
		return false;
	}
	OBJ_RELEASE(raised);
	return true;
}

void kaq_aside_drop(const kaq_aside *aside) {
	zend_object *exit = nullptr;
	bool has_run = true;
	for (int i = 0; has_run && i < KAQ_MAX_DROPS; i++) {
		has_run = kaq_drop_exception(&exit);
		has_run |= kaq_drop_handlers(aside);
	}
	EG(exception) = exit;
}

void kaq_aside_begin(kaq_aside *aside) {
	kaq_handlers stand_ins;
	kaq_read_handlers(&aside->handlers);
	kaq_make_stand_ins(&stand_ins, &aside->handlers); /* may bail out at the memory limit */
	kaq_write_handlers(&stand_ins);
	aside->has_interrupt = kaq_take_interrupt();
	aside->exception = EG(exception);
	aside->previous_exception = kaq_take_previous_exception();
	EG(exception) = nullptr;
	aside->error_reporting = EG(error_reporting);
	EG(error_reporting) &=
		E_ERROR | E_PARSE | E_CORE_ERROR | E_COMPILE_ERROR | KAQ_TAKEN_BY_HANDLERS;
	aside->last_error_type = PG(last_error_type);
	aside->last_error_line = PG(last_error_lineno);
	aside->last_error_message = PG(last_error_message);
	aside->last_error_file = PG(last_error_file);
	PG(last_error_message) = nullptr;
	PG(last_error_file) = nullptr;
	kaq_asides++;
	kaq_block_fibers();
}

template <typename Text> static void kaq_put_text_back(Text **slot, void *text) {
	*slot = (Text *)text;
}

static void kaq_put_handlers_back(kaq_aside *aside) {
	kaq_handlers left;
	kaq_read_handlers(&left);
	kaq_write_handlers(&aside->handlers);
	kaq_release_handlers(&left, false);
}

static void kaq_put_exception_back(kaq_aside *aside) {
	zend_object *raised = EG(exception);
	if (raised && kaq_is_exit(raised)) {
		if (aside->exception) {
			OBJ_RELEASE(aside->exception);
		}
		return;
	}
	kaq_set_previous_exception(aside->previous_exception);
	EG(exception) = aside->exception;
}

void kaq_aside_end(kaq_aside *aside) {
	kaq_unblock_fibers();
	kaq_asides--;
	if (aside->has_interrupt) {
		kaq_set_interrupt();
	}
	kaq_free_last_error();
	PG(last_error_type) = aside->last_error_type;
	PG(last_error_lineno) = aside->last_error_line;
	kaq_put_text_back(&PG(last_error_message), aside->last_error_message);
	kaq_put_text_back(&PG(last_error_file), aside->last_error_file);
	EG(error_reporting) = aside->error_reporting;
	kaq_put_handlers_back(aside);
	kaq_put_exception_back(aside);
}
