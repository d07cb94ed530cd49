/*
 * Encoding of one request's spans against the engine's own json_encode and base64_encode on the
 * same document, in one process: the extension's object code and the engine's embed library.
 *
 *   encode SPANS ROUNDS            a line per round: ns of ours, ns of the engine's
 *   encode SPANS own|engine TIMES  one of them that often, for instruction counts
 *
 * The first line is the document's size. Ends with status 1 when the two texts differ.
 */
#include "core/lifecycle.h"
#include "json/kaq_json.h"
#include "wire/payload.h"
#include "state/php_kaq.h"
#include "spans/kaq_execute.h"
#include "util/kaq_util_functions.h"

#include <sapi/embed/php_embed.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* A timed block repeats the work until it has taken this long. */
static const uint64_t BLOCK_NS = 30 * 1000 * 1000;

struct call_name {
	const char *class_name;
	const char *function_name;
};

static const call_name CALLS[] = {
	{"App\\Http\\Kernel", "handle"},
	{"App\\Controller\\CartController", "showItems"},
	{"App\\Catalog\\ProductRepository", "findByCategory"},
	{nullptr, "format_price"},
	{"App\\Catalog\\Product", "__construct"},
	{"App\\Pricing\\DiscountRule", "appliesTo"},
	{"App\\View\\Template", "render"},
	{nullptr, "{closure}"},
};

static const char QUERY[] = "SELECT p.id, p.name, p.price FROM products p WHERE p.category = 'a/b' "
							"AND p.name LIKE \"%lamp%\" ORDER BY p.price LIMIT 20";

static uint64_t now_ns(void) {
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

/* The characters of a string of the engine, as a function has its name. */
static char *engine_text(const char *text) {
	return text ? ZSTR_VAL(zend_string_init(text, strlen(text), 0)) : nullptr;
}

/* Names a span as the execute hook does. */
static void name_user_call(kaq_function *fi, int index) {
	static char *class_names[sizeof CALLS / sizeof CALLS[0]];
	static char *function_names[sizeof CALLS / sizeof CALLS[0]];
	size_t call = (size_t)index % (sizeof CALLS / sizeof CALLS[0]);
	if (!function_names[call]) {
		class_names[call] = engine_text(CALLS[call].class_name);
		function_names[call] = engine_text(CALLS[call].function_name);
	}
	kaq_name_wrapped_call(fi, class_names[call], function_names[call], KAQ_PHP_COMPONENT, INTERNAL);
	fi->names = KAQ_ENGINE_NAMES;
}

static kaq_node *open_span(int index) {
	kaq_node *node = kaq_create_new_node();
	kaq_function *fi = &node->data.function_info;
	if (index % 10 == 9) {
		kaq_copy_function_info(fi, "PDO", "query", "PDO", EXTERNAL);
		kaq_set_method_dbquery(fi, QUERY);
	} else if (index % 25 == 12) {
		kaq_copy_function_info(fi, nullptr, "curl_exec", "HTTP", EXTERNAL);
		kaq_set_method_url(fi, "http://stock.example/api/v2/items?sku=4711&lang=en");
		kaq_set_external_call_status(fi, 200);
	} else {
		name_user_call(fi, index);
	}
	kaq_open_node(node);
	return node;
}

/* A root and count - 1 more, in chains of up to twelve. */
static void record_spans(int count) {
	kaq_node *open[12];
	int depth = 0;
	kaq_create_main_method();
	kaq_node *root = kaq_get_globals()->current_node;
	for (int i = 1; i < count; i++) {
		open[depth++] = open_span(i);
		if (depth == 12 || i % 7 == 0 || i == count - 1) {
			while (depth > 0) {
				kaq_close_node(open[--depth]);
			}
		}
	}
	kaq_close_node(root);
}

/* The request's facts, in place of a request start that would ask the collector. */
static void describe_request(void) {
	zend_kaq_globals *g = kaq_get_globals();
	g->method_threshold = 0;
	g->node_buffer_len = 0;
	g->stored_node_count = 0;
	g->transaction_type = BCKGRND;
	strcpy(g->request_uri, "/shop/cart/items");
	strcpy(g->php_self, "/shop/index.php");
	g->start_time = 1700000000123;
	g->end_time = 1700000000987;
}

static zval *encode_engine(zval *document) {
	zval *json = php_call("json_encode", document, nullptr, nullptr);
	zval *line = php_call("base64_encode", json, nullptr, nullptr);
	php_zval_free(json);
	return line;
}

struct work {
	kaq_node **nodes;
	zval *document;
};

static void run_own(const work *w) {
	kaq_form_payload_line(w->nodes);
}

static void run_engine(const work *w) {
	php_zval_free(encode_engine(w->document));
}

typedef void (*work_fn)(const work *w);

static double time_one(work_fn run, const work *w) {
	uint64_t begin = now_ns();
	uint64_t elapsed;
	int times = 0;
	do {
		run(w);
		times++;
		elapsed = now_ns() - begin;
	} while (elapsed < BLOCK_NS);
	return (double)elapsed / times;
}

/* The engine's array for our document; null when it cannot read the text. */
static zval *decode_document(kaq_node **nodes, size_t *size) {
	smart_str text = {nullptr, 0};
	zval argument;
	zval assoc;
	kaq_form_payload(&text, nodes);
	*size = ZSTR_LEN(text.s);
	ZVAL_STRINGL(&argument, ZSTR_VAL(text.s), *size);
	ZVAL_TRUE(&assoc);
	zval *document = php_call("json_decode", &argument, &assoc, nullptr);
	zval_ptr_dtor(&argument);
	kaq_buf_free(&text);
	return document;
}

/* Memory figures move between two runs, so of the document only the spans have to be the same; they
 * stand behind the last number that moves. */
static bool same_spans(const work *w, const char *own) {
	zval *json = php_call("json_encode", w->document, nullptr, nullptr);
	own = strstr(own, "\"method_info\"");
	const char *engine =
		json && Z_TYPE_P(json) == IS_STRING ? strstr(Z_STRVAL_P(json), "\"method_info\"") : nullptr;
	/* An empty object comes back from an array as a list, so the rest behind differs. */
	const char *end = own ? strstr(own, "\"app_parameters\"") : nullptr;
	bool same = engine && end && strncmp(own, engine, (size_t)(end - own)) == 0;
	php_zval_free(json);
	return same;
}

/* The engine's Base64 of our text is our line without its line feed. */
static bool same_line(const smart_str *text, const char *line) {
	zval json;
	ZVAL_STRINGL(&json, ZSTR_VAL(text->s), ZSTR_LEN(text->s));
	zval *encoded = php_call("base64_encode", &json, nullptr, nullptr);
	bool same = line && encoded && Z_TYPE_P(encoded) == IS_STRING &&
				strlen(line) == Z_STRLEN_P(encoded) + 1 &&
				memcmp(line, Z_STRVAL_P(encoded), Z_STRLEN_P(encoded)) == 0;
	php_zval_free(encoded);
	zval_ptr_dtor(&json);
	return same;
}

/* Both sides write the same: only then do their times compare. */
static bool same_result(const work *w) {
	smart_str *text = &kaq_get_globals()->payload_text;
	const char *line = kaq_form_payload_line(w->nodes);
	kaq_buf_terminate(text);
	return w->document && same_spans(w, ZSTR_VAL(text->s)) && same_line(text, line);
}

static int measure(int argc, char **argv) {
	int spans = argc == 3 || argc == 4 ? atoi(argv[1]) : 0;
	if (spans < 1) {
		fprintf(stderr, "usage: encode SPANS ROUNDS | encode SPANS own|engine TIMES\n");
		return 2;
	}
	describe_request();
	record_spans(spans);
	size_t size;
	work w = {kaq_validate_nodes(), nullptr};
	w.document = decode_document(w.nodes, &size);
	if (kaq_get_globals()->node_buffer_len != spans || !same_result(&w)) {
		fprintf(stderr, "encode: the engine reads or writes another document\n");
		return 1;
	}
	printf("%zu\n", size);
	if (argc == 4) {
		work_fn run = strcmp(argv[2], "own") == 0 ? run_own : run_engine;
		for (int i = atoi(argv[3]); i > 0; i--) {
			run(&w);
		}
	} else {
		for (int round = atoi(argv[2]); round > 0; round--) {
			double own = time_one(run_own, &w);
			double engine = time_one(run_engine, &w);
			printf("%.1f %.1f\n", own, engine);
		}
	}
	php_zval_free(w.document);
	free(w.nodes);
	kaq_free_node_buffer();
	return 0;
}

static int start_module_and_measure(int argc, char **argv) {
	int status = 1;
	kaq_bind_thread();
	zend_first_try {
		zend_set_memory_limit((size_t)-1 >> 1);
		if (zend_startup_module(&kaq_module_entry) == SUCCESS) {
			kaq_bind_thread();
			status = measure(argc, argv);
		} else {
			fprintf(stderr, "encode: the module cannot be started\n");
		}
	}
	zend_end_try();
	return status;
}

int main(int argc, char **argv) {
	/* Without php.ini, whatever the machine has. */
	php_embed_module.php_ini_ignore = 1;
	if (php_embed_init(1, argv) != SUCCESS) {
		fprintf(stderr, "encode: the engine cannot be started\n");
		return 1;
	}
	int status = start_module_and_measure(argc, argv);
	fflush(stdout);
	/* The module was started in mid request: it has no request of its own to end. */
	_exit(status);
}
