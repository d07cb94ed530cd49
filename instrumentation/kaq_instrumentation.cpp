#include "instrumentation/kaq_instrumentation.h"

/* The table of instrumented functions is still empty: no record is built, so none is installed. */

void kaq_generate_internal_wrap_records(void) {
}

void kaq_late_initialization(void) {
}

void kaq_destroy_internal_wrap_records(void) {
}
