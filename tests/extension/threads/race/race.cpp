/*
 * race THREADS REQUESTS PAGE SETTINGS
 *
 * Runs the engine with the extension in THREADS threads, each of which serves REQUESTS requests for
 * the script PAGE; all begin at once. Each request has a number of its own, from 1 on, in its query
 * ("number=7"). SETTINGS are lines of php.ini. Prints what the pages print,
 * a line each.
 */
#include "core/lifecycle.h"

#include <pthread.h>
#include <sapi/embed/php_embed.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int thread_count;
static int request_count;
static const char *page;
static const char *settings;
static pthread_barrier_t together;
static pthread_mutex_t output_lock = PTHREAD_MUTEX_INITIALIZER;
static thread_local char query[32];
static thread_local char uri[64];

static size_t write_output(const char *text, size_t length) {
	pthread_mutex_lock(&output_lock);
	fwrite(text, 1, length, stdout);
	pthread_mutex_unlock(&output_lock);
	return length;
}

static void register_server_variables(zval *array) {
	add_assoc_string(array, "REQUEST_METHOD", (char *)"GET");
	add_assoc_string(array, "REQUEST_URI", uri);
	add_assoc_string(array, "QUERY_STRING", query);
}

static void run_page(void) {
	char code[512];
	snprintf(code, sizeof(code), "ob_start(); include '%s'; echo \"\\n\"; ob_end_flush();", page);
	zend_first_try {
		zend_eval_string(code, nullptr, (char *)"race");
	}
	zend_end_try();
}

static void serve(int number) {
	snprintf(query, sizeof(query), "number=%d", number);
	snprintf(uri, sizeof(uri), "/page.php?%s", query);
	SG(request_info).request_method = "GET";
	SG(request_info).query_string = query;
	SG(request_info).no_headers = 1;
	if (php_request_startup() == FAILURE) {
		abort();
	}
	run_page();
	php_request_shutdown(nullptr);
}

static void *serve_all(void *first) {
	ts_resource(0);
	kaq_bind_thread();
	pthread_barrier_wait(&together);
	for (int i = 0; i < request_count; i++) {
		serve(*(const int *)first + i);
	}
	ts_free_thread();
	return nullptr;
}

static void run_threads(void) {
	pthread_t *threads = (pthread_t *)calloc((size_t)thread_count, sizeof(pthread_t));
	int *first = (int *)calloc((size_t)thread_count, sizeof(int));
	pthread_barrier_init(&together, nullptr, (unsigned)thread_count);
	for (int i = 0; i < thread_count; i++) {
		first[i] = i * request_count + 1;
		if (pthread_create(&threads[i], nullptr, serve_all, &first[i]) != 0) {
			abort();
		}
	}
	for (int i = 0; i < thread_count; i++) {
		pthread_join(threads[i], nullptr);
	}
	pthread_barrier_destroy(&together);
	free(first);
	free(threads);
}

/* The threads run as soon as the modules have started: the embed library's own request comes after
 * this, so the first request of the process is one of theirs. */
static int start_and_run(sapi_module_struct *sapi) {
	/* What stands there is on the heap in some engines only: it is left alone. */
	sapi->ini_entries = strdup(settings);
	if (KAQ_STARTUP_MODULE(sapi, &kaq_module_entry) == FAILURE) {
		return FAILURE;
	}
	run_threads();
	return SUCCESS;
}

int main(int argc, char **argv) {
	if (argc != 5) {
		fprintf(stderr, "usage: race THREADS REQUESTS PAGE SETTINGS\n");
		return 2;
	}
	thread_count = atoi(argv[1]);
	request_count = atoi(argv[2]);
	page = argv[3];
	settings = argv[4];
	php_embed_module.startup = start_and_run;
	php_embed_module.register_server_variables = register_server_variables;
	php_embed_module.ub_write = write_output;
	php_embed_module.php_ini_ignore = 1;
	if (php_embed_init(0, nullptr) == FAILURE) {
		return 1;
	}
	php_embed_shutdown();
	return 0;
}
