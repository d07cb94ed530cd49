#include "diagnostics/kaq_rum.h"

#include "state/php_kaq.h"
#include "util/memory_limit.h"

#include <string.h>
#include <strings.h>

#define KAQ_CONTENT_TYPE "Content-Type:"
#define KAQ_CONTENT_LENGTH "Content-Length:"
#define KAQ_CONTENT_ENCODING "Content-Encoding:"
#define KAQ_HTML "text/html"
#define KAQ_HEAD_END "</head>"
#define KAQ_GZIP_MAGIC "\x1f\x8b"

template <size_t size>
static bool kaq_is_longer_line_of(const sapi_header_struct *line, const char (&prefix)[size]) {
	return line->header_len > size - 1 && strncasecmp(line->header, prefix, size - 1) == 0;
}

enum kaq_page_encoding { KAQ_PAGE_UNSEEN = 0, KAQ_PAGE_PLAIN, KAQ_PAGE_ENCODED };

struct kaq_page_lines {
	bool is_html;
	bool has_length;
	bool has_encoding;
};

static kaq_page_lines kaq_look_at_headers(void) {
	kaq_page_lines lines = {false, false, false};
	zend_llist_position position;
	zend_llist *headers = &SG(sapi_headers).headers;
	for (const void *entry = zend_llist_get_first_ex(headers, &position); entry;
		 entry = zend_llist_get_next_ex(headers, &position)) {
		const sapi_header_struct *line = (const sapi_header_struct *)entry;
		if (kaq_is_longer_line_of(line, KAQ_CONTENT_TYPE) &&
			strstr(line->header + strlen(KAQ_CONTENT_TYPE), KAQ_HTML)) {
			lines.is_html = true;
		}
		lines.has_length |= kaq_is_longer_line_of(line, KAQ_CONTENT_LENGTH);
		lines.has_encoding |= kaq_is_longer_line_of(line, KAQ_CONTENT_ENCODING);
	}
	return lines;
}

/* Whether the page is HTML, not encoded, and its length has not been announced. Handlers around
 * ours that compress add their header only after our first chunk, so an encoding that is announced
 * earlier was applied before the page came to us. */
static bool kaq_may_grow(zend_kaq_globals *g) {
	kaq_page_lines lines = kaq_look_at_headers();
	if (g->rum_page == KAQ_PAGE_UNSEEN) {
		g->rum_page = lines.has_encoding ? KAQ_PAGE_ENCODED : KAQ_PAGE_PLAIN;
	}
	return g->rum_page == KAQ_PAGE_PLAIN && lines.is_html && !lines.has_length;
}

/* Output that a script has compressed itself may still contain the head tag in plain text. */
static bool kaq_is_compressed(const char *output, size_t length) {
	return length >= strlen(KAQ_GZIP_MAGIC) &&
		   memcmp(output, KAQ_GZIP_MAGIC, strlen(KAQ_GZIP_MAGIC)) == 0;
}

static const char *kaq_find_head_end(const char *output, size_t length) {
	const char *end = output + length;
	const char *found = output;
	while ((found = (const char *)memchr(found, '<', (size_t)(end - found)))) {
		if ((size_t)(end - found) >= strlen(KAQ_HEAD_END) &&
			strncasecmp(found, KAQ_HEAD_END, strlen(KAQ_HEAD_END)) == 0) {
			return found;
		}
		found++;
	}
	return nullptr;
}

static bool kaq_insert_snippet(const char *output, size_t length, size_t at, const char *snippet,
							   char **new_output, size_t *new_length) {
	size_t snippet_length = strlen(snippet);
	if (!kaq_memory_has_room(length + snippet_length + 1)) {
		return false;
	}
	char *page = (char *)emalloc(length + snippet_length + 1);
	memcpy(page, output, at);
	memcpy(page + at, snippet, snippet_length);
	memcpy(page + at + snippet_length, output + at, length - at);
	page[length + snippet_length] = '\0';
	*new_output = page;
	*new_length = length + snippet_length;
	return true;
}

void kaq_rum_injection_handler(char *output, size_t output_length, char **new_output,
							   size_t *new_length, int mode) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!output || !g->rum_snippet) {
		return;
	}
	*new_output = nullptr;
	*new_length = 0;
	if ((mode & PHP_OUTPUT_HANDLER_CLEAN) || output_length == 0 || !g->rum_snippet[0] ||
		g->rum_injected || kaq_is_compressed(output, output_length) || !kaq_may_grow(g)) {
		return;
	}
	const char *head_end = kaq_find_head_end(output, output_length);
	if (head_end && kaq_insert_snippet(output, output_length, (size_t)(head_end - output),
									   g->rum_snippet, new_output, new_length)) {
		g->rum_injected = 1;
	}
}

void kaq_start_rum_injection(void) {
	const zend_kaq_globals *g = kaq_get_globals();
	if (g->transaction_type == WEB && g->enable_auto_rum && g->rum_snippet && g->rum_snippet[0]) {
		php_output_start_internal(KAQ_RUM_HANDLER_NAME, strlen(KAQ_RUM_HANDLER_NAME),
								  kaq_rum_injection_handler, KAQ_RUM_CHUNK_SIZE,
								  PHP_OUTPUT_HANDLER_STDFLAGS);
	}
}
