#include "standins.h"

#if PHP_VERSION_ID >= 80000
#include "zend_observer.h"

static bool is_observing;
static __thread zend_long under_way;

static void begin_call(zend_execute_data *) {
	under_way++;
}

static void end_call(zend_execute_data *, zval *) {
	under_way--;
}

static zend_observer_fcall_handlers observe_function(zend_execute_data *execute_data) {
	const zend_function *function = execute_data->func;
	if (!ZEND_USER_CODE(function->type) || !function->common.function_name) {
		return {nullptr, nullptr};
	}
	return {begin_call, end_call};
}

void standin_observe(void) {
	zend_long value;
	is_observing = cfg_get_long("kaq_standins.observe", &value) == SUCCESS && value;
	if (is_observing) {
		zend_observer_fcall_register(observe_function);
	}
}

zend_long standin_observed(void) {
	return is_observing ? under_way : -1;
}
#else
void standin_observe(void) {
}

zend_long standin_observed(void) {
	return -1;
}
#endif
