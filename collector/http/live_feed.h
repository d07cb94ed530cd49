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

#include "store/filter.h"

namespace kaq {

using SharedText = std::shared_ptr<const std::string>;

class LiveFeed {
public:
	class Listener {
	public:
		/* `wake` is called on the publisher's thread when there is something to take after there
		 * was nothing; it must not take. */
		Listener(std::function<void()> wake, Filter filter)
			: wake_(std::move(wake)), filter_(std::move(filter)) {
		}
		/* All that has come since the last call, oldest first, and how many were lost before. */
		std::deque<SharedText> take(uint64_t &lost);

	private:
		friend class LiveFeed;
		void put(const SharedText &text);

		const std::function<void()> wake_;
		const Filter filter_;
		std::mutex mutex_;
		std::deque<SharedText> texts_;
		uint64_t lost_ = 0;
	};

	/* Listens to the requests that match as long as the result lives. */
	std::shared_ptr<Listener> listen(std::function<void()> wake, Filter filter);
	/* `write` makes the text; it is called once, or not at all if nobody wants to know. */
	void publish(const RequestView &request, const std::function<std::string()> &write);
	/* Without listeners nothing need be looked at. */
	bool has_listeners() const;

private:
	mutable std::mutex mutex_;
	std::list<std::weak_ptr<Listener>> listeners_;
};

} // namespace kaq
