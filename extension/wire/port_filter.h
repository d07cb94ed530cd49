/* Which port a request counts under, and whether that port is to be monitored. */
#pragma once

/* Bytes of a port text with its NUL; longer texts are no ports. */
#define KAQ_PORT_TEXT_SIZE 10

enum kaq_port_verdict {
	KAQ_PORT_PASS,
	KAQ_PORT_NOT_INCLUDED, /* an include list is set and does not hold the port */
	KAQ_PORT_EXCLUDED      /* no include list is set, and the exclude list holds the port */
};

/*
 * Judges `port` by the two comma-separated lists. A list that is null or empty is not set. Where
 * the include list is set it decides alone. Empty entries of a list are skipped; the others are
 * compared byte for byte: "443" matches neither " 443" nor "0443".
 */
kaq_port_verdict kaq_port_filter(const char *included, const char *excluded, const char *port);

/* Writes the first of the two texts that has 1 to 9 characters, or "". */
void kaq_first_port_text(char port[KAQ_PORT_TEXT_SIZE], const char *first, const char *second);

/*
 * Writes the first of `static_port`, `forwarded` and `server` that has 1 to 9 characters, or "0".
 * Null and empty texts count as absent. The characters are not checked.
 */
void kaq_choose_port_text(char port[KAQ_PORT_TEXT_SIZE], const char *static_port,
						  const char *forwarded, const char *server);
