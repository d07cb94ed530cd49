/*
 * The life cycle of the extension: construction of the per-thread record, module start and end,
 * request start and end. Only the module entry (kaq.cpp) calls these.
 *
 * Call order: kaq_construct_globals (each thread) -> kaq_module_start -> { kaq_request_start ->
 * kaq_request_end }* -> kaq_module_end -> free_globals (each thread). No function fails: whatever
 * goes wrong leaves the request unmonitored and the script untouched.
 */
#pragma once

#include "state/php_kaq.h"

extern zend_module_entry kaq_module_entry;

/* Fills a fresh record: defaults, fixed buffers, host facts. Runs on the record's own thread. */
void kaq_construct_globals(zend_kaq_globals *g);

/* Releases everything that a record owns for the life of its thread, and nulls it. */
void free_globals(zend_kaq_globals *g);

/* Registers the settings, builds the wrap records and installs the hooks (kaq_start). */
void kaq_module_start(int type, int module_number);
void kaq_start(void);

/* Undoes kaq_module_start; the engine may start the module again afterwards. */
void kaq_module_end(int type, int module_number);
void kaq_end(void);

/* Their numbered steps are explained in docs/architecture.md. */
void kaq_request_start(void);
void kaq_request_end(void);
