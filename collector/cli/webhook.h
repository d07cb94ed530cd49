/*
 * Posts JSON to web addresses on a thread of its own. What cannot be delivered is tried again for
 * about a minute, without holding up what is for others, and then given up with a line in the log.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kaq {

struct WebhookSettings {
	std::chrono::milliseconds connect_time{3000};
	std::chrono::milliseconds time{10000}; /* of one try */
	std::vector<std::chrono::milliseconds> pauses = {
		std::chrono::seconds(1), std::chrono::seconds(10), std::chrono::seconds(50)};
	size_t most_waiting = 1000;
};

class Webhook {
public:
	explicit Webhook(WebhookSettings settings = WebhookSettings());
	/* As end(). */
	~Webhook();
	Webhook(const Webhook &) = delete;
	Webhook &operator=(const Webhook &) = delete;

	/* Never waits; of too many the newest are given up. Any thread. */
	void post(const std::string &url, std::string body);
	/* Breaks off what is under way; what waits is left. Nothing may be posted any more. */
	void end();

	struct Post {
		std::string url;
		std::string body;
	};
	/* What is neither delivered nor given up, the oldest first. Any thread. */
	std::vector<Post> undelivered() const;

	uint64_t delivered() const {
		return delivered_;
	}
	uint64_t given_up() const {
		return given_up_;
	}

private:
	using Clock = std::chrono::steady_clock;
	enum class Outcome { kDelivered, kRefused, kFailed };
	struct Message {
		Post post;
		Clock::time_point due;
		size_t tries = 0;
	};

	void run();
	/* Whether there is nothing more to be done about it. */
	bool deliver(Message &message);
	Outcome try_once(const Post &post, std::string &reason);
	void give_up(const Post &post, const std::string &reason);

	const WebhookSettings settings_;
	mutable std::mutex mutex_;
	std::condition_variable changed_;
	std::list<Message> waiting_; /* with the one that is under way, whose due time and tries are the
								  thread's */
	std::atomic<bool> is_to_end_{false};
	std::atomic<uint64_t> delivered_{0};
	std::atomic<uint64_t> given_up_{0};
	std::thread thread_;
};

} // namespace kaq
