/*
 * Sends one signal to one endpoint of OTLP over HTTP, and tells what has become of them as the
 * protocol says it. One thread, but for end().
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "export/otlp_signal.h"

namespace kaq {

struct OtlpEndpoint {
	std::string url;                       /* see signal_url() */
	std::vector<std::string> headers = {}; /* "Name: value" */
	std::string ca_file = {};              /* whose certificates are trusted; empty: the system's */
	std::chrono::milliseconds connect_time{5000};
	std::chrono::milliseconds time{30000}; /* of one try */
};

enum class OtlpOutcome {
	kTaken,
	kTryAgain, /* nobody answered, or it is too busy now */
	kTooLarge, /* less at a time may be taken */
	kRefused,  /* and would be again */
};

struct OtlpAnswer {
	OtlpOutcome outcome = OtlpOutcome::kTryAgain;
	int64_t rejected = 0; /* items of what was taken */
	/* How long it wants to be left alone; none: it does not say. */
	std::optional<std::chrono::seconds> pause;
	std::string reason; /* why it was not taken, or not all of it, in words */
};

class OtlpSender {
public:
	OtlpSender(OtlpEndpoint endpoint, OtlpSignal signal);
	~OtlpSender();
	OtlpSender(const OtlpSender &) = delete;
	OtlpSender &operator=(const OtlpSender &) = delete;

	/* Bytes of an ExportTraceServiceRequest, or of what the signal has instead. Throws
	 * std::bad_alloc. */
	OtlpAnswer send(std::string_view request);
	/* Breaks off what is under way, and all that follows. Any thread. */
	void end() {
		is_to_end_ = true;
	}
	/* Where it is posted to. */
	const std::string &url() const {
		return endpoint_.url;
	}

private:
	struct Connection;

	OtlpAnswer answer_of(long status, const std::string &body) const;

	OtlpEndpoint endpoint_;
	std::unique_ptr<Connection> connection_;
	std::atomic<bool> is_to_end_{false};
};

/* What Retry-After says: seconds, or a date, which is looked at from `now` in seconds since the
 * Unix epoch; nothing if it is neither. No more than an hour, and not less than nothing. */
std::optional<std::chrono::seconds> pause_of(const std::string &retry_after, int64_t now);

} // namespace kaq
