/* What is sent of requests, and to which address of an endpoint. No state; any thread. */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

enum class OtlpSignal { kTraces, kLogs, kMetrics };

/* "traces" */
std::string_view signal_name(OtlpSignal signal);

/* "https://host:4318" as "https://host:4318/v1/traces". A path stays as it is, but for another
 * signal's than traces at its end. */
std::string signal_url(const std::string &url, OtlpSignal signal);
/* Whether each signal has an address of its own. */
bool has_url_for_each_signal(const std::string &url);

} // namespace kaq
