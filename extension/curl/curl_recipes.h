/*
 * What a wrapper records about a call of a curl function: one recipe for each function.
 * kaq_record() reads the arguments, runs the saved handler, describes the span and passes a bailout
 * on, as all recipes do (instrumentation/recipes.h).
 */
#pragma once

#include "calls/wrapped_call.h"

struct kaq_curl_init {};
struct kaq_curl_setopt {};
struct kaq_curl_setopt_array {};
struct kaq_curl_exec {};
struct kaq_curl_multi_add_handle {};
struct kaq_curl_multi_exec {};
struct kaq_curl_multi_remove_handle {};
struct kaq_curl_multi_close {};

void kaq_record(const kaq_call *call, kaq_curl_init recipe);
void kaq_record(const kaq_call *call, kaq_curl_setopt recipe);
void kaq_record(const kaq_call *call, kaq_curl_setopt_array recipe);
void kaq_record(const kaq_call *call, kaq_curl_exec recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_add_handle recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_exec recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_remove_handle recipe);
void kaq_record(const kaq_call *call, kaq_curl_multi_close recipe);
