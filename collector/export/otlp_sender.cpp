#include "export/otlp_sender.h"

#include <curl/curl.h>
#include <protozero/pbf_message.hpp>

#include <algorithm>
#include <charconv>
#include <ctime>

#include "analysis/statements.h"
#include "util/gzip.h"
#include "util/utf8.h"

namespace kaq {
namespace {

constexpr size_t kMostOfAnswer = 64 * 1024;
constexpr size_t kLongestReason = 512;
constexpr int64_t kLongestPause = 3600;

/* Numbers of fields, as the protocol has them. */
enum class AnswerTag : protozero::pbf_tag_type { kPartialSuccess = 1 };
enum class PartialTag : protozero::pbf_tag_type { kRejected = 1, kMessage = 2 };

using Curl = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using Headers = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

size_t on_answer(char *bytes, size_t size, size_t count, void *to) {
	auto &answer = *static_cast<std::string *>(to);
	if (answer.size() + size * count > kMostOfAnswer) {
		return CURL_WRITEFUNC_ERROR;
	}
	answer.append(bytes, size * count);
	return size * count;
}

int on_progress(void *is_to_end, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
	return static_cast<std::atomic<bool> *>(is_to_end)->load() ? 1 : 0;
}

std::string readable(std::string_view text) {
	std::string whole = replace_invalid_utf8(text);
	std::replace_if(
		whole.begin(), whole.end(),
		[](char each) { return static_cast<unsigned char>(each) < ' ' || each == 127; }, ' ');
	return std::string(shortened(whole, kLongestReason));
}

} // namespace

struct OtlpSender::Connection {
	Curl curl{curl_easy_init(), curl_easy_cleanup};
	Headers headers{nullptr, curl_slist_free_all};

	void add_header(const std::string &header) {
		if (curl_slist *longer = curl_slist_append(headers.get(), header.c_str())) {
			static_cast<void>(headers.release());
			headers.reset(longer);
		}
	}
};

std::optional<std::chrono::seconds> pause_of(const std::string &retry_after, int64_t now) {
	int64_t seconds = 0;
	const char *end = retry_after.data() + retry_after.size();
	auto [rest, error] = std::from_chars(retry_after.data(), end, seconds);
	if (retry_after.empty() || rest != end || error != std::errc()) {
		time_t date = curl_getdate(retry_after.c_str(), nullptr);
		if (date == -1) {
			return std::nullopt;
		}
		seconds = static_cast<int64_t>(date) - now;
	}
	return std::chrono::seconds(std::clamp<int64_t>(seconds, 0, kLongestPause));
}

OtlpSender::OtlpSender(OtlpEndpoint endpoint, OtlpSignal signal)
	: endpoint_(std::move(endpoint)), connection_(std::make_unique<Connection>()) {
	endpoint_.url = signal_url(endpoint_.url, signal);
	connection_->add_header("Content-Type: application/x-protobuf");
	connection_->add_header("Content-Encoding: gzip");
	/* What is asked for before the body costs a round trip. */
	connection_->add_header("Expect:");
	for (const std::string &header : endpoint_.headers) {
		connection_->add_header(header);
	}
	CURL *curl = connection_->curl.get();
	if (!curl) {
		throw std::bad_alloc();
	}
	curl_easy_setopt(curl, CURLOPT_URL, endpoint_.url.c_str());
	curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
	curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
	curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
	curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
					 static_cast<long>(endpoint_.connect_time.count()));
	curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(endpoint_.time.count()));
	curl_easy_setopt(curl, CURLOPT_HTTPHEADER, connection_->headers.get());
	curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, on_answer);
	curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
	curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, on_progress);
	curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &is_to_end_);
	if (!endpoint_.ca_file.empty()) {
		curl_easy_setopt(curl, CURLOPT_CAINFO, endpoint_.ca_file.c_str());
	}
}

OtlpSender::~OtlpSender() = default;

OtlpAnswer OtlpSender::send(std::string_view request) {
	CURL *curl = connection_->curl.get();
	std::string packed = gzip(request);
	std::string body;
	curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(packed.size()));
	curl_easy_setopt(curl, CURLOPT_POSTFIELDS, packed.data());
	curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
	CURLcode code = curl_easy_perform(curl);
	OtlpAnswer answer;
	/* An answer that is too long is one. */
	if (code != CURLE_OK && code != CURLE_WRITE_ERROR) {
		answer.reason = curl_easy_strerror(code);
		return answer;
	}
	long status = 0;
	curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
	answer = answer_of(status, body);
	curl_header *header = nullptr;
	if (answer.outcome == OtlpOutcome::kTryAgain &&
		curl_easy_header(curl, "Retry-After", 0, CURLH_HEADER, -1, &header) == CURLHE_OK) {
		answer.pause = pause_of(header->value, time(nullptr));
	}
	return answer;
}

OtlpAnswer OtlpSender::answer_of(long status, const std::string &body) const {
	OtlpAnswer answer;
	if (status < 200 || status > 299) {
		bool is_busy = status == 429 || status == 502 || status == 503 || status == 504;
		answer.outcome = status == 413 ? OtlpOutcome::kTooLarge
						 : is_busy     ? OtlpOutcome::kTryAgain
									   : OtlpOutcome::kRefused;
		answer.reason = "it answered with status " + std::to_string(status);
		return answer;
	}
	answer.outcome = OtlpOutcome::kTaken;
	try {
		protozero::pbf_message<AnswerTag> message(body);
		while (
			message.next(AnswerTag::kPartialSuccess, protozero::pbf_wire_type::length_delimited)) {
			protozero::pbf_message<PartialTag> partial(message.get_message());
			while (partial.next()) {
				if (partial.tag() == PartialTag::kRejected &&
					partial.wire_type() == protozero::pbf_wire_type::varint) {
					answer.rejected = std::max<int64_t>(partial.get_int64(), 0);
				} else if (partial.tag() == PartialTag::kMessage &&
						   partial.wire_type() == protozero::pbf_wire_type::length_delimited) {
					answer.reason = readable(partial.get_string());
				} else {
					partial.skip();
				}
			}
		}
	} catch (const protozero::exception &) {
		/* Its status tells enough. */
		answer.rejected = 0;
		answer.reason = "its answer cannot be read";
	}
	return answer;
}

} // namespace kaq
