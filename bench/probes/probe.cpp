/*
 * Execute hooks to hold the extension against, chosen by the setting "probe.mode" at start:
 * "chain" only calls the hook before it, "clock" also reads the wall clock before and after,
 * "gated" does so with the extension's own cheap clock, "count" counts the calls. The clock reads
 * stand in the hook itself, as one would write it first. Any other mode: no hook, the functions
 * alone; with "talk" also the bare conversations with the collector, around each request.
 */
#include "conversations.h"
#include "functions.h"
#include "php_ini.h"
#include "util/kaq_clock.h"

#include <string.h>
#include <sys/time.h>

static void (*probe_previous)(zend_execute_data *execute_data);

/* Keeps the clock reads from being optimised away. */
static volatile long probe_elapsed;

zend_long probe_count;

static void probe_chain_hook(zend_execute_data *execute_data) {
	probe_previous(execute_data);
	/* Keeps the call from becoming a jump: a hook that does anything at all has a frame. */
	__asm__ volatile("");
}

static void probe_clock_hook(zend_execute_data *execute_data) {
	struct timeval start;
	struct timeval end;
	gettimeofday(&start, nullptr);
	probe_previous(execute_data);
	gettimeofday(&end, nullptr);
	probe_elapsed = (end.tv_sec - start.tv_sec) * 1000000 + end.tv_usec - start.tv_usec;
}

static void probe_gated_hook(zend_execute_data *execute_data) {
	uint64_t start = kaq_now_ms();
	probe_previous(execute_data);
	probe_elapsed = (long)(kaq_now_ms() - start);
}

static void probe_count_hook(zend_execute_data *execute_data) {
	probe_count++;
	probe_previous(execute_data);
}

PHP_INI_BEGIN()
PHP_INI_ENTRY("probe.mode", "chain", PHP_INI_SYSTEM, nullptr)
PHP_INI_ENTRY("probe.status_port", "0", PHP_INI_SYSTEM, nullptr)
PHP_INI_ENTRY("probe.data_port", "0", PHP_INI_SYSTEM, nullptr)
PHP_INI_ENTRY("probe.status_bytes", "0", PHP_INI_SYSTEM, nullptr)
PHP_INI_ENTRY("probe.data_bytes", "0", PHP_INI_SYSTEM, nullptr)
PHP_INI_END()

static bool talks;

static long probe_number(const char *name) {
	return zend_ini_long((char *)name, strlen(name), 0);
}

static PHP_MINIT_FUNCTION(probe) {
	REGISTER_INI_ENTRIES();
	const char *mode = zend_ini_string((char *)"probe.mode", strlen("probe.mode"), 0);
	probe_previous = zend_execute_ex;
	if (strcmp(mode, "clock") == 0) {
		zend_execute_ex = probe_clock_hook;
	} else if (strcmp(mode, "gated") == 0) {
		kaq_clock_startup();
		zend_execute_ex = probe_gated_hook;
	} else if (strcmp(mode, "count") == 0) {
		zend_execute_ex = probe_count_hook;
	} else if (strcmp(mode, "chain") == 0) {
		zend_execute_ex = probe_chain_hook;
	}
	talks = strcmp(mode, "talk") == 0;
	return SUCCESS;
}

static PHP_RINIT_FUNCTION(probe) {
	(void)type;
	(void)module_number;
	if (talks) {
		have_handshake((int)probe_number("probe.status_port"),
					   (size_t)probe_number("probe.status_bytes"));
	}
	return SUCCESS;
}

static PHP_RSHUTDOWN_FUNCTION(probe) {
	(void)type;
	(void)module_number;
	if (talks) {
		send_payload((int)probe_number("probe.data_port"),
					 (size_t)probe_number("probe.data_bytes"));
	}
	return SUCCESS;
}

static PHP_MSHUTDOWN_FUNCTION(probe) {
	(void)type;
	zend_execute_ex = probe_previous;
	UNREGISTER_INI_ENTRIES();
	return SUCCESS;
}

static zend_module_entry probe_module_entry = {STANDARD_MODULE_HEADER,
											   "probe",
											   probe_functions,
											   PHP_MINIT(probe),
											   PHP_MSHUTDOWN(probe),
											   PHP_RINIT(probe),
											   PHP_RSHUTDOWN(probe),
											   nullptr,
											   "1",
											   STANDARD_MODULE_PROPERTIES};

extern "C" ZEND_DLEXPORT zend_module_entry *get_module(void);
extern "C" ZEND_DLEXPORT zend_module_entry *get_module(void) {
	return &probe_module_entry;
}
