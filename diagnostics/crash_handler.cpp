#include "diagnostics/crash_handler.h"

/* No signal is handled yet: a crash ends the process by the default action. */
void wrap_sethandler(void) {
}
