/* A store whose requests are sent to a receiver of the test's own. */
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>

#include "export/destination.h"
#include "otlp_decoding.h"
#include "otlp_receiver.h"
#include "payloads.h"
#include "sqlite_store_fixture.h"

namespace kaq_test {

using namespace kaq;
using std::chrono::milliseconds;

class DestinationTest : public SqliteStoreTest {
protected:
	/* Takes what `answer` allows. */
	Receiver::Handler taking(std::function<ReceiverAnswer(const Posted &)> answer) {
		return [this, answer = std::move(answer)](const Posted &posted) {
			std::lock_guard lock(mutex_);
			ReceiverAnswer given = answer(posted);
			posts_++;
			if (given.status == 200 && !given.has_no_head && !given.is_broken_off) {
				for (const SentSpan &span : spans_of(posted.body)) {
					arrived_[span.trace_id]++;
					names_.push_back(span.resource.at("service.name"));
					order_.push_back(span.trace_id);
				}
			}
			return given;
		};
	}
	Receiver::Handler taking_all() {
		return taking([](const Posted &) { return ReceiverAnswer(); });
	}

	DestinationSettings settings_to(const Receiver &receiver) {
		DestinationSettings settings;
		settings.name = "test";
		settings.endpoint.url = receiver.url();
		settings.poll_time = milliseconds(5);
		settings.first_pause = milliseconds(1);
		settings.longest_pause = milliseconds(4);
		return settings;
	}

	void start(const DestinationSettings &settings) {
		destination_ = std::make_unique<Destination>(store(), settings, OtlpSignal::kTraces,
													 settings_.directory);
	}

	/* Of that many spans. */
	std::string put_request(int spans = 1, const std::function<void(Summary &)> &change = {}) {
		int64_t number = ++number_;
		Record one = record(number, now_);
		one.summary.spans = spans;
		if (change) {
			change(one.summary);
		}
		std::string list;
		for (int i = 0; i < spans; i++) {
			list += (i == 0 ? "" : ",") + std::string(R"({"st":1000,"et":1250,"mo":)") +
					std::to_string(i) + R"(,"fn":"main","cn":"PHP","si":")" +
					id_of(number * 100000 + i) + R"(")" +
					(i == 0 ? "" : R"(,"psi":")" + id_of(number * 100000) + R"(")") + "}";
		}
		put(one, payload(R"("t_name":"\/cart","s_time":1000,"e_time":1250,"transaction_type":1,)"
						 R"("trace_id":")" +
							 one.summary.trace_id + R"(")",
						 list));
		stored_[one.summary.trace_id] += spans;
		return one.summary.trace_id;
	}

	bool has_all() {
		return comes_true([this] {
			DestinationStatus status = destination_->status();
			return status.requests == stored_.size() && status.waiting == 0;
		});
	}
	std::map<std::string, int> arrived() {
		std::lock_guard lock(mutex_);
		return arrived_;
	}

	int64_t number_ = 0;
	std::map<std::string, int> stored_; /* spans by trace */
	std::mutex mutex_;                  /* of what has arrived */
	std::map<std::string, int> arrived_;
	std::vector<std::string> names_;
	std::vector<std::string> order_;
	int posts_ = 0;
	std::unique_ptr<Destination> destination_;
};

} // namespace kaq_test
