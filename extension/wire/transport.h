/*
 * The two exchanges with the collector, at the endpoint that the calling thread's settings name.
 * Each opens, uses and closes one connection; no failure reaches the script.
 */
#pragma once

/* Sends a NUL-terminated text to the data port; null is ignored. */
void send_packed_data_tcp(const char *text);

/* The status exchange. The collector's answer as a new heap string (caller frees), empty when there
 * is none or the port filter disabled the request; null when memory is short. */
char *get_instance_data(void);
