/*
 * What this request asks for: URI, host, script, method, query, web or background. All of it goes
 * into fixed buffers of the thread's record; a longer value is cut to the buffer's capacity less
 * one.
 */
#pragma once

/* Fills request_uri, http_host_name, php_self, request_method, query_string and transaction_type.
 * An empty request_uri afterwards means that the request is not to be monitored.
 * REQUIRES: the five buffers hold empty texts and the engine has built its server variables. */
void kaq_request_uri(void);
