#include "http/live_feed.h"

#include <utility>
#include <vector>

namespace kaq {
namespace {

constexpr size_t kMostWaiting = 1000;

} // namespace

std::deque<SharedText> LiveFeed::Listener::take(uint64_t &lost) {
	std::lock_guard lock(mutex_);
	lost = std::exchange(lost_, 0);
	return std::exchange(texts_, {});
}

void LiveFeed::Listener::put(const SharedText &text) {
	bool was_empty;
	{
		std::lock_guard lock(mutex_);
		was_empty = texts_.empty();
		if (texts_.size() >= kMostWaiting) {
			texts_.pop_front();
			lost_++;
		}
		texts_.push_back(text);
	}
	if (was_empty) {
		wake_();
	}
}

std::shared_ptr<LiveFeed::Listener> LiveFeed::listen(std::function<void()> wake, Filter filter) {
	auto listener = std::make_shared<Listener>(std::move(wake), std::move(filter));
	std::lock_guard lock(mutex_);
	listeners_.push_back(listener);
	return listener;
}

void LiveFeed::publish(const RequestView &request, const std::function<std::string()> &write) {
	std::vector<std::shared_ptr<Listener>> present;
	{
		std::lock_guard lock(mutex_);
		for (auto each = listeners_.begin(); each != listeners_.end();) {
			if (auto listener = each->lock()) {
				present.push_back(std::move(listener));
				++each;
			} else {
				each = listeners_.erase(each);
			}
		}
	}
	SharedText text;
	for (const auto &listener : present) {
		if (matches(listener->filter_, request)) {
			text = text ? text : std::make_shared<const std::string>(write());
			listener->put(text);
		}
	}
}

bool LiveFeed::has_listeners() const {
	std::lock_guard lock(mutex_);
	return !listeners_.empty();
}

} // namespace kaq
