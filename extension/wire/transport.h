/*
 * Sending to the collector's data port, at the endpoint that the calling thread's settings name.
 * A message opens, uses and closes one connection; no failure reaches the script.
 */
#pragma once

/* Sends a NUL-terminated text; null is ignored. */
void send_packed_data_tcp(const char *text);
