#include "util/kaq_aside.h"

#include <string.h>

/* Types at which the engine ends the request unless a handler takes them. */
#define KAQ_TAKEN_BY_HANDLERS (E_USER_ERROR | E_RECOVERABLE_ERROR)
/* As an error handler: whatever it is given, it does nothing and does not say false. */
#define KAQ_SILENT_HANDLER "kaq_agent_version"

__thread int kaq_asides __attribute__((tls_model("initial-exec"), visibility("hidden")));

/* First of all, since the memory limit may end it. */
static void kaq_put_handlers_aside(kaq_aside *aside) {
	bool is_set = Z_TYPE(EG(user_error_handler)) != IS_UNDEF;
	zend_string *silent =
		is_set ? zend_string_init(KAQ_SILENT_HANDLER, strlen(KAQ_SILENT_HANDLER), 0) : nullptr;
	ZVAL_COPY_VALUE(&aside->error_handler, &EG(user_error_handler));
	aside->handler_level = EG(user_error_handler_error_reporting);
	aside->handlers_below = zend_stack_count(&EG(user_error_handlers));
	ZVAL_UNDEF(&EG(user_error_handler));
	if (is_set) {
		ZVAL_NEW_STR(&EG(user_error_handler), silent);
	}
	EG(user_error_handler_error_reporting) &= KAQ_TAKEN_BY_HANDLERS;
}

static void kaq_put_handlers_back(kaq_aside *aside) {
	while (zend_stack_count(&EG(user_error_handlers)) > aside->handlers_below) {
		zval pushed;
		ZVAL_COPY_VALUE(&pushed, (zval *)zend_stack_top(&EG(user_error_handlers)));
		zend_stack_del_top(&EG(user_error_handlers));
		zend_stack_del_top(&EG(user_error_handlers_error_reporting));
		zval_ptr_dtor(&pushed);
	}
	zval set_meanwhile;
	ZVAL_COPY_VALUE(&set_meanwhile, &EG(user_error_handler));
	ZVAL_COPY_VALUE(&EG(user_error_handler), &aside->error_handler);
	EG(user_error_handler_error_reporting) = aside->handler_level;
	if (Z_TYPE(set_meanwhile) != IS_UNDEF) {
		zval_ptr_dtor(&set_meanwhile);
	}
}

void kaq_aside_begin(kaq_aside *aside) {
	kaq_put_handlers_aside(aside);
	aside->has_interrupt = kaq_take_interrupt();
	aside->exception = EG(exception);
	aside->previous_exception = EG(prev_exception);
	EG(exception) = nullptr;
	EG(prev_exception) = nullptr;
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

static void kaq_put_exception_back(kaq_aside *aside) {
	zend_object *raised = EG(exception);
	if (raised && kaq_is_exit(raised)) {
		if (aside->exception) {
			OBJ_RELEASE(aside->exception);
		}
		return;
	}
	EG(exception) = nullptr;
	if (raised) {
		OBJ_RELEASE(raised);
	}
	EG(prev_exception) = aside->previous_exception;
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
