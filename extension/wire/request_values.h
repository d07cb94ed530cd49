/*
 * Values of the request, for the payload. A null pointer stands for one that is not there.
 */
#pragma once

#include "util/engine_compat.h"

/* Calls getallheaders. A new value (php_zval_free), or null where the engine has no such
 * function. */
zval *kaq_capture_request_headers(void);

/* The request headers, without X-Skelvor-Id if it names our own account. The thread's record's. */
const zval *kaq_request_headers(void);
/* The _REQUEST entry of the global symbol table, as the script has left it. */
const zval *kaq_request_parameters(void);

/* Appends the response headers as they stand now, as a JSON object. False, with nothing appended,
 * when there are none. */
bool kaq_append_response_headers(smart_str *out);
/* The same as JSON text, a new heap string ("[]" when there are none). */
char *kaq_get_response_headers(void);

/* The script's arguments as JSON text, a new heap string ("[]" when there are none of any
 * length); null when the server variables hold no argument list. */
char *kaq_get_cli_args(void);
