/* Module start and end: settings, wrap records and the engine's hooks. */
#include "core/lifecycle.h"
#include "core/settings.h"
#include "diagnostics/crash_handler.h"
#include "diagnostics/stacktrace.h"
#include "instrumentation/kaq_instrumentation.h"
#include "spans/kaq_execute.h"
#include "tracing/account_id.h"
#include "util/kaq_clock.h"
#include "util/known_keys.h"

static kaq_throw_hook_t *kaq_throw_hook_slot(void) {
	return (kaq_throw_hook_t *)&zend_throw_exception_hook;
}

static kaq_error_cb_t *kaq_error_cb_slot(void) {
	return (kaq_error_cb_t *)&zend_error_cb;
}

/* The settings by which kaq_start has installed hooks. */
static struct {
	int execute;
	int exceptions;
	int errors;
} moved_under;

/* Follows php.ini only: a setting changed per directory or at run time neither installs nor removes
 * a hook. */
void kaq_start(void) {
	const zend_kaq_globals *g = kaq_get_globals();
	moved_under = {g->track_zend_execute, g->track_exceptions, g->track_errors};
	wrap_sethandler();
	kaq_watch_fibers(kaq_switch_fiber);
	bool observes = g->track_zend_execute == KAQ_TRACK_BY_OBSERVER && kaq_observe_user_calls();
	if (g->track_zend_execute && !observes) {
		old_execute_ex = zend_execute_ex;
		zend_execute_ex = kaq_execute_ex;
	}
	if (g->track_exceptions) {
		old_exception_cb = *kaq_throw_hook_slot();
		*kaq_throw_hook_slot() = kaq_throw_exception_hook;
	}
	if (g->track_errors) {
		old_error_cb = *kaq_error_cb_slot();
		*kaq_error_cb_slot() = kaq_error_cb;
	}
}

void kaq_end(void) {
	const zend_kaq_globals *g = kaq_get_globals();
	if (g->track_exceptions) {
		*kaq_throw_hook_slot() = old_exception_cb;
	}
	if (g->track_errors) {
		*kaq_error_cb_slot() = old_error_cb;
	}
	if (g->track_zend_execute && old_execute_ex) {
		zend_execute_ex = old_execute_ex;
		old_execute_ex = nullptr;
	}
}

/* A script may have changed the settings, and an empty value in php.ini does not restore them: a
 * hook that was left installed would point into the unloaded module. */
static void kaq_recall_settings_of_hooks(void) {
	zend_kaq_globals *g = kaq_get_globals();
	g->track_zend_execute = moved_under.execute;
	g->track_exceptions = moved_under.exceptions;
	g->track_errors = moved_under.errors;
}

void kaq_module_start(int type, int module_number) {
	kaq_engine_startup();
	kaq_make_keys();
	kaq_clock_startup();
	kaq_read_account_key();
	kaq_register_settings(type, module_number);
	kaq_generate_internal_wrap_records();
	kaq_start();
}

void kaq_module_end(int type, int module_number) {
	kaq_recall_settings_of_hooks();
	kaq_end();
	kaq_remove_crash_handler();
	kaq_destroy_internal_wrap_records();
	kaq_unregister_settings(type, module_number);
	kaq_free_keys();
}
