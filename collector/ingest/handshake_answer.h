/*
 * What the collector answers at the start of each request: whether it is to be recorded, and under
 * which names. No lock, file or allocation beyond the text; any thread.
 */
#pragma once

#include <string>
#include <string_view>

#include "ingest/handshake_request.h"

namespace kaq {

struct HandshakeAnswer {
	bool is_monitored = true;
	std::string instance_id;    /* of the application on its host and port; always the same */
	std::string application_id; /* what traces know the application by; letters, digits and '-' */
	std::string transaction;    /* normalised name; empty: the extension's own */
	int sql_stack_seconds = 1;  /* a slower statement is recorded with its callers */
	std::string snippet;        /* for browsers; empty: none */
};

/* The same for the same application, host and port, on every machine and after every restart. */
std::string instance_id_of(const HandshakeRequest &request);
/* The application's name as it can travel in a header, and a hash that tells apart what is spelled
 * alike then. */
std::string application_id_of(std::string_view application);

/* As JSON in which the extension finds its way fastest: one object, printable ASCII where the
 * texts allow it, whole numbers. */
std::string to_json(const HandshakeAnswer &answer);

} // namespace kaq
