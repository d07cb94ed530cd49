/* Threads that others should not wait for. */
#pragma once

namespace kaq {

/* From now on the calling thread gives way to others, of this process and of the site, where
 * processors are short; for what may wait for them. `name`: as the system shows it, 15 characters
 * at most. */
void work_in_background(const char *name);

} // namespace kaq
