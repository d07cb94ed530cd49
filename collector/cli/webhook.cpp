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
	end();
}

void Webhook::end() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	changed_.notify_all();
	if (thread_.joinable()) {
		thread_.join();
	}
}

void Webhook::post(const std::string &url, std::string body) {
	Post post{url, std::move(body)};
	std::unique_lock lock(mutex_);
	if (waiting_.size() >= settings_.most_waiting) {
		lock.unlock();
		give_up(post, "too many wait");
		return;
	}
	waiting_.push_back({std::move(post), Clock::now()});
	lock.unlock();
	changed_.notify_all();
}

std::vector<Webhook::Post> Webhook::undelivered() const {
	std::lock_guard lock(mutex_);
	std::vector<Post> posts;
	for (const Message &message : waiting_) {
		posts.push_back(message.post);
	}
	return posts;
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
			/* It stays in its place, which others neither change nor take away. */
			lock.unlock();
			bool is_done = deliver(*first);
			lock.lock();
			if (is_done) {
				waiting_.erase(first);
			}
		}
	}
}

bool Webhook::deliver(Message &message) {
	std::string reason;
	Outcome outcome = try_once(message.post, reason);
	if (outcome == Outcome::kDelivered) {
		delivered_++;
		return true;
	}
	if (outcome == Outcome::kFailed && is_to_end_) {
		return false;
	}
	if (outcome == Outcome::kRefused || message.tries >= settings_.pauses.size()) {
		give_up(message.post, reason);
		return true;
	}
	message.due = Clock::now() + settings_.pauses[message.tries++];
	return false;
}

Webhook::Outcome Webhook::try_once(const Post &post, std::string &reason) {
	std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
	if (!curl) {
		reason = "libcurl has no memory";
		return Outcome::kFailed;
	}
	std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
		curl_slist_append(nullptr, "Content-Type: application/json"), curl_slist_free_all);
	size_t left = kMostOfAnswer;
	curl_easy_setopt(curl.get(), CURLOPT_URL, post.url.c_str());
	curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
	curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
	curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT_MS,
					 static_cast<long>(settings_.connect_time.count()));
	curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.time.count()));
	curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
	curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, post.body.c_str());
	curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(post.body.size()));
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

void Webhook::give_up(const Post &post, const std::string &reason) {
	given_up_++;
	log_some(LogLevel::kWarning, "webhook",
			 "an alert could not be posted to " + host_of(post.url) + ": " + reason);
}

} // namespace kaq
