#include "util/engine_access.h"

static const zval *kaq_stored_property(zend_object *object, const char *name) {
	const zend_property_info *info = (const zend_property_info *)zend_hash_str_find_ptr(
		&object->ce->properties_info, name, strlen(name));
	if (!info || (info->flags & ZEND_ACC_STATIC)) {
		return nullptr;
	}
	zval *value = OBJ_PROP(object, info->offset);
	ZVAL_DEREF(value);
	return value;
}

zend_string *kaq_property_text(zend_object *object, const char *name) {
	const zval *value = kaq_stored_property(object, name);
	if (!value || Z_TYPE_P(value) == IS_UNDEF || Z_TYPE_P(value) == IS_OBJECT) {
		return ZSTR_EMPTY_ALLOC();
	}
	return Z_TYPE_P(value) == IS_ARRAY ? zend_string_init("Array", strlen("Array"), 0)
									   : zval_get_string((zval *)value);
}

zend_long kaq_property_number(zend_object *object, const char *name) {
	const zval *value = kaq_stored_property(object, name);
	return value && Z_TYPE_P(value) != IS_UNDEF && Z_TYPE_P(value) <= IS_STRING
			   ? zval_get_long((zval *)value)
			   : 0;
}

zend_function *kaq_find_callable_function(const char *name, size_t length) {
	zend_function *function =
		(zend_function *)zend_hash_str_find_ptr(EG(function_table), name, length);
	if (!function || function->type != ZEND_INTERNAL_FUNCTION ||
		kaq_is_disabled_function(function)) {
		return nullptr;
	}
	return function;
}

void kaq_call_internal(zend_function *function, uint32_t count, zval *args, zval *result) {
	zend_execute_data *outer = EG(current_execute_data);
	zend_execute_data *call = KAQ_PUSH_CALL(function, count);
	for (uint32_t i = 0; i < count; i++) {
		ZVAL_COPY(ZEND_CALL_ARG(call, i + 1), &args[i]);
	}
	call->prev_execute_data = outer;
	EG(current_execute_data) = call;
	ZVAL_NULL(result);
	function->internal_function.handler(call, result);
	EG(current_execute_data) = outer;
	zend_vm_stack_free_args(call);
	zend_vm_stack_free_call_frame(call);
	if (EG(exception)) {
		zval_ptr_dtor(result);
		ZVAL_UNDEF(result);
	}
}

bool kaq_has_plain_objects(void) {
	return zend_standard_class_def->create_object == nullptr;
}

void kaq_fetch_backtrace(zval *frames, int limit) {
	if (!EG(current_execute_data)) {
		array_init(frames);
		return;
	}
	zend_fetch_debug_backtrace(frames, 0, DEBUG_BACKTRACE_IGNORE_ARGS, limit);
}

/* The standard cast needs __toString(); a class with its own cast handler may do without it. */
bool kaq_is_stringable(const zval *object) {
	return Z_OBJCE_P(object)->__tostring ||
		   Z_OBJ_HT_P(object)->cast_object != zend_get_std_object_handlers()->cast_object;
}
