/*
 * The wrappers that the table of instrumented functions expands to, as data for the registry.
 */
#pragma once

#include "instrumentation/kaq_instrumentation.h"

#include <stddef.h>

/* Value of `capture` for a function whose wrapper is never installed. */
#define KAQ_NEVER ((size_t)-1)

struct kaq_wrapper {
	const char *full_name;
	size_t capture; /* offset of the group's capture setting in the thread's record */
	kaq_internalfn_t **outer_wrapper_global;
	kaq_phpfn_t outer_wrapper;
	void (*inner_wrapper)(zend_execute_data *execute_data, zval *return_value,
						  kaq_internalfn_t *wraprec, kaq_node *node);
};

/* In the order of the table. */
extern const kaq_wrapper kaq_wrappers[];
extern const size_t kaq_wrapper_count;

/* Functions that do what the function of a row does without calling it, and are recorded as that
 * one. Their records stand outside of the list of wrapped functions. */
extern const kaq_wrapper kaq_synonyms[];
extern const size_t kaq_synonym_count;
extern kaq_internalfn_t kaq_synonym_records[];
