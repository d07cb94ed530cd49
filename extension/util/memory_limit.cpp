#include "util/memory_limit.h"

#include "util/engine_compat.h"
#include "util/kaq_assert.h"

__thread int kaq_open_memory_sections
	__attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Newer engines refuse a limit below what is in use: what we have freed may have to be given back
 * first, and if that is not enough at least nothing more is to be had. */
static void kaq_put_limit_in_force(void) {
	if (zend_set_memory_limit((size_t)PG(memory_limit)) == SUCCESS) {
		return;
	}
	zend_mm_gc(zend_mm_get_heap());
	if (zend_set_memory_limit((size_t)PG(memory_limit)) != SUCCESS) {
		zend_set_memory_limit(zend_memory_usage(1));
	}
}

/* Every time: a fatal error that left a section open has put the limit in force. */
void kaq_memory_limit_lift(void) {
	kaq_open_memory_sections++;
	zend_set_memory_limit((size_t)-1 >> 1);
}

void kaq_memory_limit_restore(void) {
	KAQ_REQUIRES(kaq_open_memory_sections > 0);
	kaq_memory_limit_unwind(kaq_open_memory_sections - 1);
}

void kaq_memory_limit_unwind(int sections) {
	if (kaq_open_memory_sections <= sections) {
		return;
	}
	kaq_open_memory_sections = sections;
	if (sections == 0) {
		kaq_put_limit_in_force();
	}
}

bool kaq_memory_has_room(size_t size) {
	const size_t chunk = (size_t)2 * 1024 * 1024;
	const size_t page = 4096;
	size_t needed = size < chunk - page ? chunk : size + page;
	size_t limit = (size_t)PG(memory_limit);
	size_t used = zend_memory_usage(1);
	return needed > size && used < limit && limit - used >= needed;
}
