/*
 * What a wrapper records of a call: a handful of recipes that the rows of the table share. Each
 * overload of kaq_record() reads the arguments, runs the saved handler, describes the span and
 * passes a bailout on.
 *
 * A layout is a format string of the engine's argument parser ("Os|l"). Several are separated
 * by ";" and tried in order; "2:sa" is tried only with two arguments, "1!s" reads the first
 * argument whatever follows, and needs one.
 */
#pragma once

#include "instrumentation/kaq_instrumentation.h"

typedef struct {
	zend_execute_data *execute_data;
	zval *return_value;
	kaq_phpfn_t oldhandler;
	kaq_node *node;   /* the open span */
	kaq_function *fi; /* of that span; names and priority are set */
} kaq_call;

/* What follows when no layout fits. */
enum kaq_parse_failure {
	KAQ_DIRECT,          /* the saved handler runs unprotected; the span keeps its names only */
	KAQ_EMPTY,           /* the text counts as "" */
	KAQ_EMPTY_IF_PASSED, /* the same, but without any argument as KAQ_DIRECT */
	KAQ_IGNORED,         /* the text stays unset */
};

/* Nothing but the names. */
struct kaq_names {};

/* An SQL text: the string number `text` of the layout. Stored after the call. */
struct kaq_query {
	const char *layouts;
	int text;
	kaq_parse_failure failure;
};

/* A connection: string 0 is the host, number 0 the port if `has_port`, string 3 the database if
 * `has_dbname`. Stored before the call. With `warns` the engine reports unfit arguments. */
struct kaq_connect {
	const char *layouts;
	bool has_port;
	bool has_dbname;
	bool warns;
	kaq_parse_failure failure;
};

/* A database name: string 0 of the layout. Stored after the call. */
struct kaq_dbname {
	const char *layouts;
};

/* A CQL text: the first argument if it is a string, as it is after the call. */
struct kaq_cql {
	const char *layouts;
};

/* A host: the first argument if it is a string. */
struct kaq_contact_points {};

/* curl: curl_recipes.cpp. */
struct kaq_curl_init {};
struct kaq_curl_setopt {};
struct kaq_curl_setopt_array {};
struct kaq_curl_exec {};
struct kaq_curl_multi_add_handle {};
struct kaq_curl_multi_exec {};
struct kaq_curl_multi_remove_handle {};
struct kaq_curl_multi_close {};

void kaq_record(const kaq_call *call, kaq_names recipe);
void kaq_record(const kaq_call *call, kaq_query recipe);
void kaq_record(const kaq_call *call, kaq_connect recipe);
void kaq_record(const kaq_call *call, kaq_dbname recipe);
void kaq_record(const kaq_call *call, kaq_cql recipe);
void kaq_record(const kaq_call *call, kaq_contact_points recipe);
void kaq_record(const kaq_call *call, kaq_curl_init recipe);
void kaq_record(const kaq_call *call, kaq_curl_setopt recipe);
void kaq_record(const kaq_call *call, kaq_curl_setopt_array recipe);
void kaq_record(const kaq_call *call, kaq_curl_exec recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_add_handle recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_exec recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_remove_handle recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_close recipe);
