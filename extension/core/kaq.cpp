/* The module entry: fans the engine's lifecycle calls out, in the order of core/lifecycle.h. */
#ifdef HAVE_CONFIG_H
#include "config.h"
#endif

#include "core/lifecycle.h"
#include "core/script_functions.h"
#include "diagnostics/crash_handler.h"

static PHP_GINIT_FUNCTION(kaq) {
	kaq_bind_thread();
	kaq_construct_globals(kaq_globals);
}

static PHP_GSHUTDOWN_FUNCTION(kaq) {
	free_globals(kaq_globals);
	kaq_release_signal_stack();
}

static PHP_MINIT_FUNCTION(kaq) {
	kaq_bind_thread();
	kaq_module_start(type, module_number);
	return SUCCESS;
}

static PHP_MSHUTDOWN_FUNCTION(kaq) {
	kaq_module_end(type, module_number);
	return SUCCESS;
}

static PHP_RINIT_FUNCTION(kaq) {
	(void)type;
	(void)module_number;
	kaq_bind_thread();
	kaq_request_start();
	return SUCCESS;
}

static PHP_RSHUTDOWN_FUNCTION(kaq) {
	(void)type;
	(void)module_number;
	kaq_request_end();
	return SUCCESS;
}

static ZEND_MODULE_POST_ZEND_DEACTIVATE_D(kaq) {
	return SUCCESS;
}

static PHP_MINFO_FUNCTION(kaq) {
	php_info_print_table_start();
	php_info_print_table_header(2, "key", "value");
	php_info_print_table_row(2, "kaq.version", KAQ_VERSION);
	php_info_print_table_row(2, "kaq.version_info", KAQ_VERSION_INFO);
	php_info_print_table_row(2, "kaq.date", KAQ_BUILD_DATE);
	php_info_print_table_end();
	display_ini_entries(zend_module);
}

zend_module_entry kaq_module_entry = {STANDARD_MODULE_HEADER,
									  "kaq",
									  kaq_functions,
									  PHP_MINIT(kaq),
									  PHP_MSHUTDOWN(kaq),
									  PHP_RINIT(kaq),
									  PHP_RSHUTDOWN(kaq),
									  PHP_MINFO(kaq),
									  KAQ_VERSION,
									  PHP_MODULE_GLOBALS(kaq),
									  PHP_GINIT(kaq),
									  PHP_GSHUTDOWN(kaq),
									  ZEND_MODULE_POST_ZEND_DEACTIVATE_N(kaq),
									  STANDARD_MODULE_PROPERTIES_EX};

#ifdef COMPILE_DL_KAQ
ZEND_GET_MODULE(kaq)
#endif
