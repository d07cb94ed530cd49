/* HTTP header lines, taken apart and put together. No state; any thread. */
#pragma once

#include <stddef.h>

/*
 * Splits `line` at its first colon. `name` receives what comes before it, `value` the rest without
 * its leading white space but with everything at its end, even a final CR LF. Each is cut to its
 * buffer's size - 1 bytes and terminated.
 *
 * Does nothing when a pointer is null, a size is 0 or the line is empty. A line without a colon
 * leaves both buffers as they are, so the caller empties `name` first and drops the line if it is
 * still empty afterwards.
 */
void kaq_header_to_keyvalue(const char *line, char *name, size_t name_size, char *value,
							size_t value_size);

/* A new heap string "name: value", followed by CR LF if `crlf` is not 0. Null when name or value is
 * null, or when memory is short. The caller frees. */
char *header_format_name_value(const char *name, const char *value, int crlf);

/*
 * Finds `key` in `text` in any case, skips the colons and blanks after it and returns the run of
 * characters that an encoded value may consist of as a new heap string: letters, digits, blanks and
 * + / = _ - . , : ; % ~ ! * ' ( ) { } " [ ]. Null when the key is absent or null, or the run is
 * empty. The caller frees.
 *
 * Interface: kept for callers outside.
 */
char *header_extract_encoded_value(const char *key, const char *text);
