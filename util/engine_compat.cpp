#include "util/engine_compat.h"

#ifdef ZTS
TSRM_TLS void *TSRMLS_CACHE KAQ_THREAD_LOCAL_MODEL = NULL;

void kaq_bind_thread(void) {
	TSRMLS_CACHE = tsrm_get_ls_cache();
}
#else
void kaq_bind_thread(void) {
}
#endif

zval *kaq_read_property(zval *object, const char *name, size_t name_length, zval *rv) {
	if (!object || Z_TYPE_P(object) != IS_OBJECT) {
		return NULL;
	}
#if PHP_VERSION_ID < 80000
	return zend_read_property(Z_OBJCE_P(object), object, name, name_length, 1, rv);
#else
	return zend_read_property(Z_OBJCE_P(object), Z_OBJ_P(object), name, name_length, 1, rv);
#endif
}

zend_function *kaq_find_callable_function(const char *name, size_t length) {
	zend_function *function =
		(zend_function *)zend_hash_str_find_ptr(EG(function_table), name, length);
	if (!function || function->type != ZEND_INTERNAL_FUNCTION ||
		kaq_is_disabled_function(function)) {
		return NULL;
	}
	return function;
}

/* Later engines take a disabled function out of the table. */
int kaq_is_disabled_function(const zend_function *function) {
#if PHP_VERSION_ID < 80000
	return function->internal_function.handler == ZEND_FN(display_disabled_function);
#else
	(void)function;
	return 0;
#endif
}

#if PHP_VERSION_ID < 80100
void kaq_watch_fibers(kaq_fiber_notice_t) {
}
#else
#include "zend_extensions.h"
#include "zend_fibers.h"
#include "zend_observer.h"

static kaq_fiber_notice_t kaq_fiber_notice;
static int kaq_fiber_slot = -1; /* of this process, for good */

static void kaq_pass_fiber_switch(zend_fiber_context *from, zend_fiber_context *to) {
	kaq_fiber_notice(&from->reserved[kaq_fiber_slot], &to->reserved[kaq_fiber_slot]);
}

void kaq_watch_fibers(kaq_fiber_notice_t notice) {
	if (kaq_fiber_slot < 0) {
		kaq_fiber_slot = zend_get_resource_handle("kaq");
	}
	if (kaq_fiber_slot >= 0) {
		kaq_fiber_notice = notice;
		zend_observer_fiber_switch_register(kaq_pass_fiber_switch);
	}
}
#endif

int kaq_has_plain_objects(void) {
	return zend_standard_class_def->create_object == NULL;
}

void kaq_memory_limit_lift(void) {
	zend_set_memory_limit((size_t)-1 >> 1);
}

void kaq_memory_limit_restore(void) {
	zend_set_memory_limit((size_t)PG(memory_limit));
}

void kaq_fetch_backtrace(zval *frames, int limit) {
	if (!EG(current_execute_data)) {
		array_init(frames);
		return;
	}
	zend_fetch_debug_backtrace(frames, 0, DEBUG_BACKTRACE_IGNORE_ARGS, limit);
}
