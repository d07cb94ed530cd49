/*
 * JSON texts of per-request values, for the payload. Each returns a new heap string (the caller
 * frees it) or null when there is no such value.
 */
#pragma once

#include "util/engine_compat.h"

/* Calls getallheaders. A new value (php_zval_free), or null where the engine has no such
 * function. */
zval *kaq_capture_request_headers(void);

/* The request headers, without X-Skelvor-Id if it names our own account. */
char *kaq_get_request_headers(void);
/* The response headers as they stand now. */
char *kaq_get_response_headers(void);
/* The _REQUEST entry of the global symbol table, as the script has left it. */
char *kaq_get_request_parameters(void);

/* The script's arguments as JSON text, a new heap string ("[]" when there are none of any
 * length); null when the server variables hold no argument list. */
char *kaq_get_cli_args(void);

/* What the script attached to the transaction. */
char *kaq_get_custom_parameters(void);
char *kaq_get_appparam_sum(void);
char *kaq_get_apparam_average(void);
