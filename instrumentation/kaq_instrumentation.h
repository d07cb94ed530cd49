/*
 * The instrumented internal functions: one wrap record each, built at module start, installed at
 * the first request, released at module end.
 */
#pragma once

/* Builds the list of wrap records. Once per module start, after the settings are registered. */
void kaq_generate_internal_wrap_records(void);

/* Installs the enabled wrappers. Called at every request start. */
void kaq_late_initialization(void);

/* Releases the wrap records. */
void kaq_destroy_internal_wrap_records(void);
