/*
 * The browser snippet of HTML responses: an output handler puts it before the closing head tag.
 */
#pragma once

#include <stddef.h>

#define KAQ_RUM_HANDLER_NAME "RUM Injection"
#define KAQ_RUM_CHUNK_SIZE 66560 /* bytes */

/* Request start, last: starts the output handler for a web request whose settings and collector ask
 * for it. */
void kaq_start_rum_injection(void);

/* The handler. A null *new_output means that the chunk passes unchanged; otherwise it is a buffer
 * on the request allocator, which the engine frees. */
void kaq_rum_injection_handler(char *output, size_t output_length, char **new_output,
							   size_t *new_length, int mode);
