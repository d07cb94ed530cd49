/*
 * The 30 "kaq." settings. Each has an update handler that writes one field of the calling thread's
 * record; an empty value changes nothing, so a text that was once set cannot be cleared again.
 */
#pragma once

#include "state/php_kaq.h"

/* Registering calls every handler once with the value of php.ini or the default. */
void kaq_register_settings(int type, int module_number);
void kaq_unregister_settings(int type, int module_number);

/* Request start: fresh per-request copies of the application name, the application group and the
 * two remote exporter texts. */
void kaq_set_request_global_strings(void);
