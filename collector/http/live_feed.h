/*
 * Tells every listener what happens, as it happens. A listener that does not keep up loses the
 * oldest and is told how many; nobody waits for it. Any thread.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace kaq {

using SharedText = std::shared_ptr<const std::string>;

class LiveFeed {
public:
	class Listener {
	public:
		/* `wake` is called on the publisher's thread when there is something to take after there
		 * was nothing; it must not take. */
		explicit Listener(std::function<void()> wake) : wake_(std::move(wake)) {
		}
		/* All that has come since the last call, oldest first, and how many were lost before. */
		std::deque<SharedText> take(uint64_t &lost);

	private:
		friend class LiveFeed;
		void put(const SharedText &text);

		const std::function<void()> wake_;
		std::mutex mutex_;
		std::deque<SharedText> texts_;
		uint64_t lost_ = 0;
	};

	/* Listens as long as the result lives. */
	std::shared_ptr<Listener> listen(std::function<void()> wake);
	void publish(std::string text);
	/* Without listeners nothing need be written. */
	bool has_listeners() const;

private:
	mutable std::mutex mutex_;
	std::list<std::weak_ptr<Listener>> listeners_;
};

} // namespace kaq
