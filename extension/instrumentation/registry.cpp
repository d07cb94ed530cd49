#include "curl/followed_functions.h"
#include "instrumentation/kaq_instrumentation.h"
#include "instrumentation/wrappers.h"
#include "state/php_kaq.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

kaq_internalfn_t *kaq_wrapped_internal_functions;

/* Guards the shared class tables and the records during installation. */
static pthread_mutex_t installation_lock = PTHREAD_MUTEX_INITIALIZER;

kaq_internalfn_t *kaq_get_wraprec(void) {
	kaq_internalfn_t *wraprec = (kaq_internalfn_t *)calloc(1, sizeof(kaq_internalfn_t));
	if (wraprec) {
		wraprec->next = kaq_wrapped_internal_functions;
		kaq_wrapped_internal_functions = wraprec;
	}
	return wraprec;
}

static void kaq_fill_record(kaq_internalfn_t *wraprec, const kaq_wrapper *row,
							const zend_kaq_globals *g) {
	wraprec->full_name = row->full_name;
	wraprec->outer_wrapper_global = row->outer_wrapper_global;
	wraprec->outer_wrapper = row->outer_wrapper;
	wraprec->inner_wrapper = row->inner_wrapper;
	wraprec->is_enabled =
		row->capture == KAQ_NEVER ? 0 : *(const int *)((const char *)g + row->capture);
}

void kaq_generate_internal_wrap_records(void) {
	if (kaq_wrapped_internal_functions) {
		return;
	}
	const zend_kaq_globals *g = kaq_get_globals();
	for (size_t i = 0; i < kaq_synonym_count; i++) {
		kaq_fill_record(&kaq_synonym_records[i], &kaq_synonyms[i], g);
	}
	for (size_t i = 0; i < kaq_wrapper_count; i++) {
		kaq_internalfn_t *wraprec = kaq_get_wraprec();
		if (!wraprec) {
			return;
		}
		kaq_fill_record(wraprec, &kaq_wrappers[i], g);
	}
	for (size_t i = 0; i < kaq_followed_function_count; i++) {
		kaq_followed_functions[i].is_enabled = g->capture_http;
	}
}

char *kaq_function_name_from_full_name(const char *full_name) {
	const char *separator = strstr(full_name, "::");
	return strdup(separator ? separator + 2 : full_name);
}

char *kaq_class_name_from_full_name(const char *full_name) {
	const char *separator = strchr(full_name, ':');
	return separator ? strndup(full_name, (size_t)(separator - full_name)) : nullptr;
}

static void *kaq_find_entry(HashTable *table, const char *name) {
	return name && name[0] ? zend_hash_str_find_ptr(table, name, strlen(name)) : nullptr;
}

zend_function *kaq_find_function(const char *name) {
	return (zend_function *)kaq_find_entry(EG(function_table), name);
}

zend_class_entry *kaq_find_class(const char *name) {
	return (zend_class_entry *)kaq_find_entry(EG(class_table), name);
}

zend_function *kaq_find_class_method(zend_class_entry *ce, const char *name) {
	return ce ? (zend_function *)kaq_find_entry(&ce->function_table, name) : nullptr;
}

/* A thread's table may be a copy of one that already has the wrapper. All tables share one saved
 * handler: where somebody else has put in another one, it is left alone, and calls are not
 * recorded. */
static void kaq_wrap_entry(kaq_internalfn_t *wraprec, zend_function *function) {
	if (!function || function->type != ZEND_INTERNAL_FUNCTION ||
		kaq_is_disabled_function(function)) {
		return;
	}
	zend_internal_function *internal = &function->internal_function;
	if (internal->handler == wraprec->outer_wrapper ||
		(wraprec->is_wrapped && internal->handler != wraprec->oldhandler)) {
		return;
	}
	if (!wraprec->is_wrapped) {
		wraprec->oldhandler = internal->handler;
		if (wraprec->outer_wrapper_global) {
			*wraprec->outer_wrapper_global = wraprec;
		}
		wraprec->is_wrapped = 1;
	}
	__atomic_store_n(&internal->handler, wraprec->outer_wrapper, __ATOMIC_RELEASE);
}

static bool kaq_is_internal_heir(const zend_class_entry *ce, const zend_class_entry *ancestor) {
	if (ce->type != ZEND_INTERNAL_CLASS) {
		return false;
	}
	do {
		ce = ce->parent;
	} while (ce && ce != ancestor);
	return ce != nullptr;
}

/* An internal class has copies of the methods that it inherits. One that has a method of its own
 * instead keeps that. */
static void kaq_wrap_inherited(kaq_internalfn_t *wraprec, const zend_class_entry *ancestor,
							   const char *name) {
	void *entry;
	ZEND_HASH_FOREACH_PTR(EG(class_table), entry) {
		zend_class_entry *ce = (zend_class_entry *)entry;
		if (kaq_is_internal_heir(ce, ancestor)) {
			kaq_wrap_entry(wraprec, kaq_find_class_method(ce, name));
		}
	}
	ZEND_HASH_FOREACH_END();
}

static void kaq_wrap_method(kaq_internalfn_t *wraprec, const char *class_name, const char *name) {
	zend_class_entry *ce = kaq_find_class(class_name);
	kaq_wrap_entry(wraprec, kaq_find_class_method(ce, name));
	if (wraprec->is_wrapped) {
		kaq_wrap_inherited(wraprec, ce, name);
	}
}

void kaq_wrap_internal_function(kaq_internalfn_t *wraprec) {
	char *class_name = kaq_class_name_from_full_name(wraprec->full_name);
	char *name = kaq_function_name_from_full_name(wraprec->full_name);
	if (class_name) {
		kaq_wrap_method(wraprec, class_name, name);
	} else {
		kaq_wrap_entry(wraprec, kaq_find_function(name));
	}
	free(class_name);
	free(name);
}

/* Methods are in tables that all threads share, so they are wrapped once for all. */
static bool kaq_is_shared(const kaq_internalfn_t *wraprec) {
	return !KAQ_THREAD_SAFE || strchr(wraprec->full_name, ':');
}

static void kaq_install(kaq_internalfn_t *wraprec) {
	if (wraprec->is_enabled && !(wraprec->is_wrapped && kaq_is_shared(wraprec))) {
		kaq_wrap_internal_function(wraprec);
	}
}

void kaq_add_internal_instrumentation(void) {
	pthread_mutex_lock(&installation_lock);
	for (kaq_internalfn_t *wraprec = kaq_wrapped_internal_functions; wraprec;
		 wraprec = wraprec->next) {
		kaq_install(wraprec);
	}
	for (size_t i = 0; i < kaq_synonym_count; i++) {
		kaq_install(&kaq_synonym_records[i]);
	}
	for (size_t i = 0; i < kaq_followed_function_count; i++) {
		if (kaq_followed_functions[i].is_enabled) {
			kaq_wrap_internal_function(&kaq_followed_functions[i]);
		}
	}
	pthread_mutex_unlock(&installation_lock);
}

void kaq_late_initialization(void) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->work_done) {
		g->work_done = 1;
		kaq_add_internal_instrumentation();
	}
}

void kaq_internal_wraprec_destroy(kaq_internalfn_t **wraprec) {
	if ((*wraprec)->outer_wrapper_global) {
		*(*wraprec)->outer_wrapper_global = nullptr;
	}
	free(*wraprec);
	*wraprec = nullptr;
}

void kaq_destroy_internal_wrap_records(void) {
	kaq_internalfn_t *wraprec = kaq_wrapped_internal_functions;
	while (wraprec) {
		kaq_internalfn_t *next = wraprec->next;
		kaq_internal_wraprec_destroy(&wraprec);
		wraprec = next;
	}
	kaq_wrapped_internal_functions = nullptr;
	for (size_t i = 0; i < kaq_synonym_count; i++) {
		*kaq_synonyms[i].outer_wrapper_global = nullptr;
		kaq_synonym_records[i] = {};
	}
	for (size_t i = 0; i < kaq_followed_function_count; i++) {
		kaq_followed_functions[i].is_wrapped = 0;
	}
}
