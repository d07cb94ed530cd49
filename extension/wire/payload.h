/*
 * The transaction payload: one JSON document per monitored request. docs/wire-format.md lists
 * every member with its order, its condition and its unit.
 */
#pragma once

#include "spans/kaq_util.h"

/* Buffers up to this size stay with the thread: taking a few hundred KB from the system and giving
 * them back for every request costs more than filling them. */
#define KAQ_KEPT_BUFFER_SIZE ((size_t)512 * 1024)

/* Builds the payload of the current request and sends it as one Base64 line. Without a request
 * URI a notice goes out instead; without spans nothing does.
 * REQUIRES: every span is closed, end_time and the CPU time are set. */
void kaq_request_data_dump_ex(void);

/* The whole document as one Base64 line with its line feed, in the thread's payload buffers, where
 * it stays until the next call. Null when memory is short. */
const char *kaq_form_payload_line(kaq_node **nodes);

/* Appends the whole document. `nodes` holds node_buffer_len spans by key; a null entry is left
 * out. */
void kaq_form_payload(smart_str *out, kaq_node **nodes);

/* Appends the list of spans. `nodes` holds `count` spans by key, the root first; a null entry is
 * left out. */
void kaq_form_spans(smart_str *out, kaq_node **nodes, int count);

/* Appends the members of one span object, without the braces. Interface: kept for callers outside.
 */
void kaq_form_method_info(const kaq_node *node, smart_str *out);
/* The same for the root span, with the caller's span id when there is one. Interface: kept for
 * callers outside. */
void kaq_form_root_method_info(const kaq_node *node, smart_str *out);
