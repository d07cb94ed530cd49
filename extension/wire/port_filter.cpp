#include "wire/port_filter.h"

#include <string.h>

static int kaq_is_set(const char *text) {
	return text != nullptr && *text != '\0';
}

static int kaq_list_holds(const char *list, const char *port) {
	size_t port_length = strlen(port);
	for (;;) {
		size_t length = strcspn(list, ",");
		if (length > 0 && length == port_length && memcmp(list, port, length) == 0) {
			return 1;
		}
		if (list[length] == '\0') {
			return 0;
		}
		list += length + 1;
	}
}

kaq_port_verdict kaq_port_filter(const char *included, const char *excluded, const char *port) {
	if (kaq_is_set(included)) {
		return kaq_list_holds(included, port) ? KAQ_PORT_PASS : KAQ_PORT_NOT_INCLUDED;
	}
	if (kaq_is_set(excluded) && kaq_list_holds(excluded, port)) {
		return KAQ_PORT_EXCLUDED;
	}
	return KAQ_PORT_PASS;
}

static int kaq_take_port(char port[KAQ_PORT_TEXT_SIZE], const char *text) {
	size_t length = text == nullptr ? 0 : strnlen(text, KAQ_PORT_TEXT_SIZE);
	if (length == 0 || length == KAQ_PORT_TEXT_SIZE) {
		return 0;
	}
	memcpy(port, text, length + 1);
	return 1;
}

void kaq_first_port_text(char port[KAQ_PORT_TEXT_SIZE], const char *first, const char *second) {
	port[0] = '\0';
	if (!kaq_take_port(port, first)) {
		kaq_take_port(port, second);
	}
}

void kaq_choose_port_text(char port[KAQ_PORT_TEXT_SIZE], const char *static_port,
						  const char *forwarded, const char *server) {
	if (kaq_take_port(port, static_port)) {
		return;
	}
	kaq_first_port_text(port, forwarded, server);
	if (port[0] == '\0') {
		kaq_take_port(port, "0");
	}
}
