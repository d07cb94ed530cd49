/* Preconditions, as headers state them after "REQUIRES:". Checked in builds configured with
 * --enable-kaq-debug only. */
#pragma once

#ifdef KAQ_DEBUG
#include <stdio.h>
#include <stdlib.h>
#define KAQ_REQUIRES(condition)                                                          \
	do {                                                                                 \
		if (!(condition)) {                                                              \
			fprintf(stderr, "kaq: %s:%d requires %s\n", __FILE__, __LINE__, #condition); \
			abort();                                                                     \
		}                                                                                \
	} while (0)
#else
#define KAQ_REQUIRES(condition) ((void)0)
#endif
