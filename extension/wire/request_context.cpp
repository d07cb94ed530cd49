#include "wire/request_context.h"

#include "state/php_kaq.h"
#include "util/kaq_strings.h"
#include "util/known_keys.h"

static void kaq_copy_server_text(char *buffer, size_t capacity, kaq_key key) {
	kaq_copy_bounded(buffer, capacity, kaq_server_text(key));
}

/* Code given on the command line or on standard input has no script after which to name the run.
 * Older engines call it "-". */
static bool kaq_is_nameless_script(const char *php_self) {
	return strcmp(php_self, "Standard input code") == 0 || strcmp(php_self, "-") == 0;
}

static void kaq_background_uri(zend_kaq_globals *g) {
	g->transaction_type = BCKGRND;
	if (g->capture_clirequest && g->php_self[0] && !kaq_is_nameless_script(g->php_self)) {
		kaq_copy_bounded(g->request_uri, KAQ_TEXT_BUFFER_SIZE, g->php_self);
	}
}

static void kaq_web_uri(zend_kaq_globals *g) {
	g->transaction_type = WEB;
	char *query = strchr(g->request_uri, '?');
	if (query) {
		*query = '\0';
	}
	size_t length = strlen(g->request_uri);
	if (length >= 2 && g->request_uri[length - 1] == '/') {
		g->request_uri[length - 1] = '\0';
	}
}

void kaq_request_uri(void) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_copy_server_text(g->http_host_name, KAQ_TEXT_BUFFER_SIZE, KAQ_KEY_HTTP_HOST);
	kaq_copy_server_text(g->php_self, KAQ_TEXT_BUFFER_SIZE, KAQ_KEY_PHP_SELF);
	kaq_copy_server_text(g->request_method, KAQ_TEXT_BUFFER_SIZE, KAQ_KEY_REQUEST_METHOD);
	kaq_copy_server_text(g->query_string, KAQ_QUERY_BUFFER_SIZE, KAQ_KEY_QUERY_STRING);
	kaq_copy_server_text(g->request_uri, KAQ_TEXT_BUFFER_SIZE, KAQ_KEY_ORIGINAL_URL);
	if (!g->request_uri[0]) {
		kaq_copy_server_text(g->request_uri, KAQ_TEXT_BUFFER_SIZE, KAQ_KEY_REQUEST_URI);
	}
	if (g->request_uri[0]) {
		kaq_web_uri(g);
	} else {
		kaq_background_uri(g);
	}
}
