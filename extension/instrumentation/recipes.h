/*
 * What a wrapper records about a call: a handful of recipes that the rows of wrapped_functions.h
 * share. Each overload of kaq_record() reads the arguments, runs the saved handler, describes the
 * span and passes a bailout on.
 */
#pragma once

#include "calls/wrapped_call.h"
#include "curl/curl_recipes.h"

/* What follows when no layout fits. */
enum kaq_parse_failure {
	KAQ_DIRECT,          /* the saved handler runs unprotected; the span keeps its names only */
	KAQ_EMPTY,           /* the text counts as "" */
	KAQ_EMPTY_IF_PASSED, /* as KAQ_EMPTY, but as KAQ_DIRECT for a call without arguments */
	KAQ_IGNORED,         /* the text stays unset */
};

/* Nothing but the names. */
struct kaq_names {};

/* An SQL text: string number `text` of the layout, from 0. Stored in the span after the call. */
struct kaq_query {
	const char *layouts;
	int text;
	kaq_parse_failure failure;
};

/* A connection: string 0 is the host, number 0 the port if `has_port`, string 3 the database if
 * `has_dbname`. Stored before the call. With `warns` the engine reports arguments that do not
 * fit. */
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

void kaq_record(const kaq_call *call, kaq_names recipe);
void kaq_record(const kaq_call *call, kaq_query recipe);
void kaq_record(const kaq_call *call, kaq_connect recipe);
void kaq_record(const kaq_call *call, kaq_dbname recipe);
void kaq_record(const kaq_call *call, kaq_cql recipe);
void kaq_record(const kaq_call *call, kaq_contact_points recipe);
