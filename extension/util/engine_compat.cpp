#include "util/engine_compat.h"

#include <pthread.h>

#ifdef ZTS
TSRM_TLS void *TSRMLS_CACHE KAQ_THREAD_LOCAL_MODEL = nullptr;

void kaq_bind_module_globals(int key) {
	TSRMLS_CACHE = tsrm_get_ls_cache();
	kaq_clock_thread.companion = TSRMG_BULK_STATIC(key, void *);
}
#else
void kaq_bind_module_globals(int) {
}
#endif

#if PHP_VERSION_ID < 80400
void kaq_engine_startup(void) {
}
#else
static zend_string *kaq_name_of_closures;           /* belongs to the engine */
static const kaq_call_observer *kaq_calls_observer; /* null: nobody */

void kaq_engine_startup(void) {
	kaq_calls_observer = nullptr;
	kaq_name_of_closures = zend_string_init_interned("{closure}", strlen("{closure}"), true);
}

static bool kaq_tells_where_it_stands(const char *name) {
	return strncmp(name, "{closure:", strlen("{closure:")) == 0;
}

/* A closure can be made of any function, whose name it then has. */
zend_string *kaq_closure_name(const zend_function *function) {
	zend_string *name = function->common.function_name;
	return kaq_tells_where_it_stands(ZSTR_VAL(name)) ? kaq_name_of_closures : name;
}

const char *kaq_plain_name(const char *name) {
	return kaq_tells_where_it_stands(name) ? ZSTR_VAL(kaq_name_of_closures) : name;
}
#endif

zval *kaq_read_property(zval *object, const char *name, size_t name_length, zval *rv) {
	if (!object || Z_TYPE_P(object) != IS_OBJECT) {
		return nullptr;
	}
#if PHP_VERSION_ID < 80000
	return zend_read_property(Z_OBJCE_P(object), object, name, name_length, 1, rv);
#else
	return zend_read_property(Z_OBJCE_P(object), Z_OBJ_P(object), name, name_length, 1, rv);
#endif
}

#if PHP_VERSION_ID < 80000
void kaq_format_message(kaq_message *message, const char *format, va_list args) {
	va_list copy;
	va_copy(copy, args);
	vspprintf(&message->owned, 0, format, copy);
	va_end(copy);
	message->text = message->owned;
}

zend_object *kaq_thrown_object(kaq_thrown *exception) {
	return Z_OBJ_P(exception);
}
#else
zend_object *kaq_thrown_object(kaq_thrown *exception) {
	return exception;
}
#endif

void kaq_message_free(kaq_message *message) {
	if (message->owned) {
		efree(message->owned);
	}
}

static bool kaq_is_send(const zend_op *op) {
	switch (op->opcode) {
	case ZEND_SEND_VAL:
	case ZEND_SEND_VAL_EX:
	case ZEND_SEND_VAR:
	case ZEND_SEND_VAR_EX:
#if PHP_VERSION_ID >= 70300
	case ZEND_SEND_FUNC_ARG:
#endif
		return true;
	default:
		return false;
	}
}

bool kaq_is_call(const zend_op *op) {
	return op->opcode == ZEND_DO_FCALL || op->opcode == ZEND_DO_ICALL ||
		   op->opcode == ZEND_DO_FCALL_BY_NAME;
}

bool kaq_passes_variable(const zend_op *op) {
	return kaq_is_send(op) && op->op1_type == IS_CV;
}

/* Later engines take a disabled function out of the table. */
bool kaq_is_disabled_function(const zend_function *function) {
#if PHP_VERSION_ID < 80000
	return function->internal_function.handler == ZEND_FN(display_disabled_function);
#else
	(void)function;
	return false;
#endif
}

#if PHP_VERSION_ID < 80100
void kaq_watch_fibers(kaq_fiber_notice_t) {
}

void kaq_block_fibers(void) {
}

void kaq_unblock_fibers(void) {
}

void kaq_set_running_fiber(void *, bool) {
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

void kaq_block_fibers(void) {
	zend_fiber_switch_block();
}

void kaq_unblock_fibers(void) {
	zend_fiber_switch_unblock();
}

bool kaq_fibers_blocked(void) {
	return zend_fiber_switch_blocked();
}

/* The engine counts who blocks them, and tells only whether it is somebody. */
void kaq_set_running_fiber(void *fiber, bool blocked) {
	EG(active_fiber) = (zend_fiber *)fiber;
	while (!blocked && zend_fiber_switch_blocked()) {
		zend_fiber_switch_unblock();
	}
}
#endif

#if PHP_VERSION_ID < 80400
bool kaq_observe_calls(const kaq_call_observer *) {
	return false;
}
#endif

#if PHP_VERSION_ID < 80000
void kaq_end_observed_calls(zend_execute_data *) {
}
#elif PHP_VERSION_ID < 80400
#include "zend_observer.h"

void kaq_end_observed_calls(zend_execute_data *) {
	zend_observer_fcall_end_all();
}
#else
static zend_observer_fcall_handlers kaq_choose_calls(zend_execute_data *call) {
	if (call->func->type == ZEND_USER_FUNCTION && call->func->common.function_name &&
		kaq_calls_observer->is_wanted(call->func)) {
		return {kaq_calls_observer->begins, kaq_calls_observer->ends};
	}
	return {nullptr, nullptr};
}

bool kaq_observe_calls(const kaq_call_observer *observer) {
	kaq_calls_observer = php_during_module_startup() ? observer : nullptr;
	if (kaq_calls_observer) {
		zend_observer_fcall_register(kaq_choose_calls);
	}
	return kaq_calls_observer != nullptr;
}

void kaq_end_observed_calls(zend_execute_data *outer) {
	zend_execute_data *running = EG(current_execute_data);
	uintptr_t place = 0;
	while (EG(current_observed_frame) && EG(current_observed_frame) != outer) {
		EG(current_execute_data) = EG(current_observed_frame);
		if (kaq_calls_observer) {
			kaq_calls_observer->is_cut_off(EG(current_observed_frame), &place);
		}
		zend_observer_fcall_end_prechecked(EG(current_observed_frame), nullptr);
	}
	EG(current_observed_frame) = outer;
	EG(current_execute_data) = running;
}
#endif

#if PHP_VERSION_ID < 80000
zend_long kaq_zval_resource_id(const zval *handle) {
	return Z_RES_HANDLE_P(handle);
}

bool kaq_is_curl_handle(const zval *value) {
	if (!value || Z_TYPE_P(value) != IS_RESOURCE) {
		return false;
	}
	const char *type = zend_rsrc_list_get_rsrc_type(Z_RES_P(value));
	return type && strcmp(type, "curl") == 0;
}

bool kaq_may_be_curl(const zval *) {
	return true;
}

bool kaq_find_curl_handle(zend_long id, zval *handle) {
	zend_resource *resource =
		(zend_resource *)zend_hash_index_find_ptr(&EG(regular_list), (zend_ulong)id);
	if (!resource) {
		return false;
	}
	ZVAL_RES(handle, resource);
	return kaq_is_curl_handle(handle);
}

void kaq_follow_clones(zval *, kaq_clone_notice) {
}

void kaq_watch_handles_start(HashTable *, kaq_handle_notice) {
}

void kaq_watch_handle(HashTable *, const zval *) {
}

zend_long kaq_watched_id(const zval *) {
	return 0;
}

void kaq_watch_handles_end(HashTable *) {
}
#else
#include "zend_weakrefs.h"

zend_long kaq_zval_resource_id(const zval *handle) {
	return Z_TYPE_P(handle) == IS_OBJECT ? (zend_long)Z_OBJ_HANDLE_P(handle)
										 : (zend_long)Z_RES_HANDLE_P(handle);
}

bool kaq_is_curl_handle(const zval *value) {
	return value && Z_TYPE_P(value) == IS_OBJECT &&
		   zend_string_equals_literal(Z_OBJCE_P(value)->name, "CurlHandle");
}

bool kaq_may_be_curl(const zval *value) {
	return Z_TYPE_P(value) == IS_OBJECT &&
		   (kaq_is_curl_handle(value) ||
			zend_string_equals_literal(Z_OBJCE_P(value)->name, "CurlMultiHandle"));
}

bool kaq_find_curl_handle(zend_long id, zval *handle) {
	if (id <= 0 || id >= (zend_long)EG(objects_store).top ||
		!IS_OBJ_VALID(EG(objects_store).object_buckets[id])) {
		return false;
	}
	ZVAL_OBJ(handle, EG(objects_store).object_buckets[id]);
	return kaq_is_curl_handle(handle);
}

static zend_object_handlers kaq_followed_handlers;
static zend_object_clone_obj_t kaq_clone_handle;
static kaq_clone_notice kaq_noted_clone;

static zend_object *kaq_clone_and_tell(zend_object *object) {
	zend_object *clone = kaq_clone_handle(object);
	if (clone) {
		zval from;
		zval to;
		ZVAL_OBJ(&from, object);
		ZVAL_OBJ(&to, clone);
		kaq_noted_clone(&from, &to);
	}
	return clone;
}

/* All curl handles share one table of handlers. A followed one gets a copy of it, which differs in
 * how a clone is made. */
void kaq_follow_clones(zval *handle, kaq_clone_notice notice) {
	static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
	if (!kaq_is_curl_handle(handle) || Z_OBJ_HT_P(handle) == &kaq_followed_handlers) {
		return;
	}
	pthread_mutex_lock(&lock);
	if (!kaq_clone_handle && Z_OBJ_HT_P(handle)->clone_obj) {
		kaq_followed_handlers = *Z_OBJ_HT_P(handle);
		kaq_followed_handlers.clone_obj = kaq_clone_and_tell;
		kaq_noted_clone = notice;
		kaq_clone_handle = Z_OBJ_HT_P(handle)->clone_obj;
	}
	bool is_known = kaq_clone_handle && Z_OBJ_HT_P(handle)->clone_obj == kaq_clone_handle;
	pthread_mutex_unlock(&lock);
	if (is_known) {
		Z_OBJ_P(handle)->handlers = &kaq_followed_handlers;
	}
}

void kaq_watch_handles_start(HashTable *watch, kaq_handle_notice forget) {
	zend_hash_init(watch, 0, nullptr, forget, 0);
}

/* What tells a watch from the all-zero record of none. */
static bool kaq_is_live_watch(const HashTable *watch) {
	return watch->pDestructor != nullptr;
}

void kaq_watch_handle(HashTable *watch, const zval *handle) {
	if (kaq_is_live_watch(watch) && Z_TYPE_P(handle) == IS_OBJECT) {
		zval entry;
		ZVAL_PTR(&entry, Z_OBJ_P(handle));
		zend_weakrefs_hash_add(watch, Z_OBJ_P(handle), &entry);
	}
}

zend_long kaq_watched_id(const zval *entry) {
	return (zend_long)((const zend_object *)Z_PTR_P(entry))->handle;
}

void kaq_watch_handles_end(HashTable *watch) {
	if (!kaq_is_live_watch(watch)) {
		return;
	}
	void *object;
	watch->pDestructor = nullptr;
	ZEND_HASH_FOREACH_PTR(watch, object) {
		zend_weakrefs_hash_del(watch, (zend_object *)object);
	}
	ZEND_HASH_FOREACH_END();
	zend_hash_destroy(watch);
	memset(watch, 0, sizeof(*watch));
}
#endif

#if PHP_VERSION_ID < 80000
bool kaq_is_exit(const zend_object *) {
	return false;
}
#elif PHP_VERSION_ID < 80100
bool kaq_is_exit(const zend_object *exception) {
	return zend_is_unwind_exit(exception);
}
#else
bool kaq_is_exit(const zend_object *exception) {
	return zend_is_unwind_exit(exception) || zend_is_graceful_exit(exception);
}
#endif

#if PHP_VERSION_ID < 70100
bool kaq_take_interrupt(void) {
	return false;
}

void kaq_set_interrupt(void) {
}
#elif PHP_VERSION_ID < 80200
bool kaq_take_interrupt(void) {
	bool pending = EG(vm_interrupt);
	EG(vm_interrupt) = 0;
	return pending;
}

void kaq_set_interrupt(void) {
	EG(vm_interrupt) = 1;
}
#else
bool kaq_take_interrupt(void) {
	return zend_atomic_bool_exchange_ex(&EG(vm_interrupt), false);
}

void kaq_set_interrupt(void) {
	zend_atomic_bool_store_ex(&EG(vm_interrupt), true);
}
#endif

#if PHP_VERSION_ID < 80000
#define KAQ_FREE_LAST_MESSAGE free
#else
#define KAQ_FREE_LAST_MESSAGE zend_string_release
#endif
#if PHP_VERSION_ID < 80100
#define KAQ_FREE_LAST_FILE free
#else
#define KAQ_FREE_LAST_FILE zend_string_release
#endif

void kaq_free_last_error(void) {
	if (PG(last_error_message)) {
		KAQ_FREE_LAST_MESSAGE(PG(last_error_message));
	}
	if (PG(last_error_file)) {
		KAQ_FREE_LAST_FILE(PG(last_error_file));
	}
}
