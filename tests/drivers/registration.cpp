#include "standins.h"

#include <string.h>

#include "standin_table.h"

ZEND_BEGIN_ARG_INFO_EX(arginfo_any, 0, 0, 0)
ZEND_ARG_VARIADIC_INFO(0, arguments)
ZEND_END_ARG_INFO()
ZEND_BEGIN_ARG_INFO_EX(arginfo_out2, 0, 0, 0)
ZEND_ARG_INFO(0, argument)
ZEND_ARG_VARIADIC_INFO(ZEND_SEND_PREFER_REF, outputs)
ZEND_END_ARG_INFO()
#define arginfo_bound arginfo_out2
ZEND_BEGIN_ARG_INFO_EX(arginfo_running, 0, 0, 0)
ZEND_ARG_INFO(0, handle)
ZEND_ARG_INFO(ZEND_SEND_PREFER_REF, running)
ZEND_END_ARG_INFO()

#define FUNCTION_ENTRY(name, arguments) ZEND_FENTRY(name, standin_call, arginfo_##arguments, 0)
#define METHOD_ENTRY(name, arguments) \
	ZEND_FENTRY(name, standin_call, arginfo_##arguments, ZEND_ACC_PUBLIC)
#define METHODS_OF_CLASS(id, name, methods) \
	static const zend_function_entry methods_of_##id[] = {methods(METHOD_ENTRY) PHP_FE_END};

static const zend_function_entry functions[] = {STANDIN_FUNCTIONS(FUNCTION_ENTRY) PHP_FE_END};
STANDIN_CLASSES(METHODS_OF_CLASS)

typedef struct {
	const char *name;
	const zend_function_entry *methods;
} standin_class;

#define CLASS_ROW(id, name, methods) {name, methods_of_##id},
static const standin_class classes[] = {STANDIN_CLASSES(CLASS_ROW)};
static const size_t class_count = sizeof classes / sizeof classes[0];
static const size_t function_count = sizeof functions / sizeof functions[0] - 1;

static bool registered[function_count];

static bool is_left_out(const char *name) {
	char *list;
	if (cfg_get_string("kaq_standins.without", &list) == FAILURE || !list) {
		return false;
	}
	size_t length = strlen(name);
	for (const char *at = list; (at = strstr(at, name)); at += length) {
		bool begins = at == list || at[-1] == ',';
		if (begins && (at[length] == ',' || at[length] == '\0')) {
			return true;
		}
	}
	return false;
}

static bool takes_over(void) {
	zend_long value;
	return cfg_get_long("kaq_standins.take_over", &value) == SUCCESS && value;
}

static zend_function *find_function(HashTable *table, const char *name) {
	zend_string *key = zend_string_init(name, strlen(name), 0);
	zend_string *lower = zend_string_tolower(key);
	zend_function *function = (zend_function *)zend_hash_find_ptr(table, lower);
	zend_string_release(lower);
	zend_string_release(key);
	return function;
}

static zend_class_entry *find_class(const char *name) {
	zend_string *key = zend_string_init(name, strlen(name), 0);
	zend_string *lower = zend_string_tolower(key);
	zend_class_entry *ce = (zend_class_entry *)zend_hash_find_ptr(CG(class_table), lower);
	zend_string_release(lower);
	zend_string_release(key);
	return ce;
}

static void register_one(zend_class_entry *scope, HashTable *table,
						 const zend_function_entry *entry) {
	zend_function_entry one[2];
	memset(one, 0, sizeof one);
	one[0] = *entry;
	zend_register_functions(scope, one, table, MODULE_PERSISTENT);
}

static void register_functions(void) {
	for (size_t i = 0; i < function_count; i++) {
		zend_function *there = find_function(CG(function_table), functions[i].fname);
		if (there && takes_over()) {
			there->internal_function.handler = standin_call;
		} else if (!there && !is_left_out(functions[i].fname)) {
			register_one(nullptr, nullptr, &functions[i]);
			registered[i] = true;
		}
	}
}

/* "class::method" in lower case, as a new string of the engine's. */
static zend_string *method_key(const char *class_name, const char *method) {
	zend_string *name = strpprintf(0, "%s::%s", class_name, method);
	zend_string *lower = zend_string_tolower(name);
	zend_string_release(name);
	return lower;
}

static zend_class_entry *register_class(const standin_class *wanted) {
	zend_class_entry ce;
	INIT_CLASS_ENTRY_EX(ce, wanted->name, strlen(wanted->name), nullptr);
	zend_class_entry *made = zend_register_internal_class(&ce);
	for (const zend_function_entry *method = wanted->methods; method->fname; method++) {
		zend_string *key = method_key(wanted->name, method->fname);
		if (!is_left_out(ZSTR_VAL(key))) {
			register_one(made, &made->function_table, method);
		}
		zend_string_release(key);
	}
	return made;
}

static void take_over_class(zend_class_entry *ce, const standin_class *wanted) {
	for (const zend_function_entry *method = wanted->methods; method->fname; method++) {
		zend_function *there = find_function(&ce->function_table, method->fname);
		if (there) {
			there->internal_function.handler = standin_call;
		}
	}
}

static PHP_METHOD(StandinRedisOther, get) {
	(void)execute_data;
	RETURN_STRING("of its own");
}

static const zend_function_entry other_methods[] = {
	PHP_ME(StandinRedisOther, get, arginfo_any, ZEND_ACC_PUBLIC) PHP_FE_END};

/* An internal class that inherits at module startup, before any first request. */
static zend_class_entry *register_child(const char *name, zend_class_entry *parent,
										const zend_function_entry *methods) {
	zend_class_entry ce;
	INIT_CLASS_ENTRY_EX(ce, name, strlen(name), methods);
	return zend_register_internal_class_ex(&ce, parent);
}

static void register_children(zend_class_entry *redis) {
	zend_class_entry *child = register_child("StandinRedisChild", redis, nullptr);
	register_child("StandinRedisGrandchild", child, nullptr);
	register_child("StandinRedisOther", redis, other_methods);
}

static void register_classes(void) {
	for (size_t i = 0; i < class_count; i++) {
		zend_string *key = zend_string_init(classes[i].name, strlen(classes[i].name), 0);
		zend_string *lower = zend_string_tolower(key);
		zend_class_entry *ce = find_class(classes[i].name);
		if (ce && takes_over()) {
			take_over_class(ce, &classes[i]);
		} else if (!ce && !is_left_out(ZSTR_VAL(lower))) {
			ce = register_class(&classes[i]);
			if (!strcmp(classes[i].name, "Redis")) {
				register_children(ce);
			}
		}
		zend_string_release(lower);
		zend_string_release(key);
	}
}

void standin_register_all(void) {
	register_functions();
	register_classes();
}

/* Not where threads share the functions of their tables: the engine frees them itself, before it
 * unloads a module. */
void standin_unregister_all(void) {
#if PHP_VERSION_ID < 80400
	for (size_t i = 0; i < function_count; i++) {
		if (registered[i]) {
			zend_unregister_functions(&functions[i], 1, nullptr);
			registered[i] = false;
		}
	}
#endif
}

static void list_one(zval *array, const char *name, const zend_function *function) {
	if (function && function->type == ZEND_INTERNAL_FUNCTION) {
		add_assoc_bool(array, name, function->internal_function.handler == standin_call);
	}
}

void standin_list(zval *array) {
	for (size_t i = 0; i < function_count; i++) {
		list_one(array, functions[i].fname, find_function(EG(function_table), functions[i].fname));
	}
	for (size_t i = 0; i < class_count; i++) {
		zend_class_entry *ce = find_class(classes[i].name);
		for (const zend_function_entry *m = classes[i].methods; ce && m->fname; m++) {
			zend_string *key = method_key(classes[i].name, m->fname);
			list_one(array, ZSTR_VAL(key), find_function(&ce->function_table, m->fname));
			zend_string_release(key);
		}
	}
}
