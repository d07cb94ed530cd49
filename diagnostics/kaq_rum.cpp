#include "diagnostics/kaq_rum.h"

/* No output handler yet: every page leaves as the script wrote it. */
void kaq_start_rum_injection(void) {
}
