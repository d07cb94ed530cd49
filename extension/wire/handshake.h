/*
 * The instance handshake: at request start the collector is told who we are and answers whether
 * this request is monitored, and with which settings.
 *
 * get_instance_info() runs all of it; the other functions are its steps.
 */
#pragma once

#include "util/engine_compat.h"
#include "wire/port_filter.h"

/* Sets control_signal, instance_id, normalised_txn_name, app_id, sql_trace_threshold and
 * rum_snippet of the calling thread. REQUIRES: kaq_request_uri() has been called. */
void get_instance_info(void);

/* The status exchange. The collector's answer as a new heap string (caller frees), empty when there
 * is none or the port filter disabled the request; null when memory is short. */
char *get_instance_data(void);

/* Writes the request into an empty buffer and returns 0; or returns 1, with the buffer untouched
 * and a notice sent, when the port filter excludes this request. */
int form_instanceinfo_request(smart_str *buffer);

/* Stores what the answer says. Changes nothing unless it is a JSON object. */
void process_instance_info(const char *reply);

/* The port that a proxy forwarded, else the server's own, else "". */
void kaq_get_serverport(char port[KAQ_PORT_TEXT_SIZE]);
