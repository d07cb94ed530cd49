#include "cli/webhook.h"

#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <memory>

#include "util/log.h"

namespace kaq {
namespace {

constexpr long kTooManyRequests = 429;
constexpr size_t kMostOfAnswer = 64 * 1024;

/* What is behind the host may be what lets one post there. */
std::string host_of(const std::string &url) {
	size_t begin = url.find("://");
	begin = begin == std::string::npos ? 0 : begin + 3;
	size_t end = std::min(url.find_first_of("/?#", begin), url.size());
	size_t user = url.rfind('@', end);
	begin = user != std::string::npos && user >= begin ? user + 1 : begin;
	return url.substr(begin, end - begin);
}

size_t on_answer(char *, size_t size, size_t count, void *left) {
	size_t bytes = size * count;
	size_t &most = *static_cast<size_t *>(left);
	if (bytes > most) {
		return CURL_WRITEFUNC_ERROR;
	}
	most -= bytes;
	return bytes;
}

int on_progress(void *is_to_end, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
	return static_cast<std::atomic<bool> *>(is_to_end)->load() ? 1 : 0;
}

} // namespace

Webhook::Webhook(WebhookSettings settings)
	: settings_(std::move(settings)), thread_([this] { run(); }) {
}

Webhook::~Webhook() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	changed_.notify_all();
	thread_.join();
}

void Webhook::post(const std::string &url, std::string body) {
	Message message{url, std::move(body), Clock::now()};
	std::unique_lock lock(mutex_);
	if (waiting_.size() >= settings_.most_waiting) {
		lock.unlock();
		give_up(message, "too many wait");
		return;
	}
	waiting_.push_back(std::move(message));
	lock.unlock();
	changed_.notify_all();
}

void Webhook::run() {
	pthread_setname_np(pthread_self(), "kaq-webhook");
	auto is_earlier = [](const Message &left, const Message &right) {
		return left.due < right.due;
	};
	std::unique_lock lock(mutex_);
	while (!is_to_end_) {
		auto first = std::min_element(waiting_.begin(), waiting_.end(), is_earlier);
		if (first == waiting_.end()) {
			changed_.wait(lock);
		} else if (first->due > Clock::now()) {
			changed_.wait_until(lock, Clock::time_point(first->due));
		} else {
			Message message = std::move(*first);
			waiting_.erase(first);
			lock.unlock();
			deliver(std::move(message));
			lock.lock();
		}
	}
}

void Webhook::deliver(Message message) {
	std::string reason;
	Outcome outcome = try_once(message, reason);
	if (outcome == Outcome::kDelivered) {
		delivered_++;
		return;
	}
	if (outcome == Outcome::kRefused || message.tries >= settings_.pauses.size() || is_to_end_) {
		give_up(message, reason);
		return;
	}
	message.due = Clock::now() + settings_.pauses[message.tries++];
	std::lock_guard lock(mutex_);
	waiting_.push_back(std::move(message));
}

Webhook::Outcome Webhook::try_once(const Message &message, std::string &reason) {
	std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
	if (!curl) {
		reason = "libcurl has no memory";
		return Outcome::kFailed;
	}
	std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
		curl_slist_append(nullptr, "Content-Type: application/json"), curl_slist_free_all);
	size_t left = kMostOfAnswer;
	curl_easy_setopt(curl.get(), CURLOPT_URL, message.url.c_str());
	curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
	curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
	curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT_MS,
					 static_cast<long>(settings_.connect_time.count()));
	curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.time.count()));
	curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
	curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, message.body.c_str());
	curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(message.body.size()));
	curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, on_answer);
	curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &left);
	curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
	curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, on_progress);
	curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &is_to_end_);
	CURLcode code = curl_easy_perform(curl.get());
	long status = 0;
	curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
	/* An answer that is too long is one. */
	if (code != CURLE_OK && code != CURLE_WRITE_ERROR) {
		reason = curl_easy_strerror(code);
		return Outcome::kFailed;
	}
	reason = "it answered with status " + std::to_string(status);
	if (status >= 200 && status < 300) {
		return Outcome::kDelivered;
	}
	return status >= 500 || status == kTooManyRequests ? Outcome::kFailed : Outcome::kRefused;
}

void Webhook::give_up(const Message &message, const std::string &reason) {
	given_up_++;
	log_some(LogLevel::kWarning, "webhook",
			 "an alert could not be posted to " + host_of(message.url) + ": " + reason);
}

} // namespace kaq
