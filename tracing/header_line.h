/* One HTTP header line taken apart. No state, no allocation; any thread. */
#pragma once

#include <stddef.h>

/*
 * Splits `line` at its first colon. `name` receives what stands before it, `value` what follows
 * after leading white space, up to the end of the line with all trailing characters, a final CR LF
 * included. Each is cut to its buffer's size - 1 bytes and terminated.
 *
 * Does nothing when a pointer is null, a size is 0 or the line is empty. A line without a colon
 * leaves both buffers as they are, so the caller empties `name` first and drops the line if it is
 * still empty afterwards.
 */
void kaq_header_to_keyvalue(const char *line, char *name, size_t name_size, char *value,
							size_t value_size);
