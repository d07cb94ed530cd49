/*
 * From the bytes of a connection to transactions, on a thread of its own. What has been accepted is
 * freed of its secrets, gets its name and is told to the sink, in the order of arrival, or it is
 * counted as refused.
 */
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "analysis/naming.h"
#include "analysis/scrub.h"
#include "model/payload_reader.h"
#include "util/bounded_queue.h"
#include "util/budgeted_buffer.h"

namespace kaq {

/* What the extension says instead of sending a transaction. */
enum class Notice { kNotMonitored, kNoUri, kPortFilter, kOther };
constexpr size_t kNotices = 4;
constexpr size_t kPayloadErrors = 4;

/* A word for each, as metrics and logs use it: "not-monitored". */
std::string_view notice_name(Notice notice);
Notice notice_of(std::string_view text);

struct PipelineCounts {
	std::atomic<uint64_t> transactions{0};
	std::array<std::atomic<uint64_t>, kNotices> notices{};
	std::array<std::atomic<uint64_t>, kPayloadErrors> errors{};
	std::atomic<uint64_t> incomplete{0}; /* no line feed at the end */
};

struct PipelineSettings {
	ScrubSettings scrub;
	std::vector<NamingRule> naming = usual_naming_rules();
};

class Pipeline {
public:
	/* Called on the pipeline's thread. */
	using Sink = std::function<void(std::shared_ptr<const Transaction>)>;

	Pipeline(PipelineSettings settings, Sink sink);
	/* Takes what is queued to the sink first. */
	~Pipeline();

	/* False, and nothing taken, if too much is queued already. Any thread. */
	bool accept(BudgetedBuffer &&bytes);

	/* The settings from one of the next payloads on. Any thread. */
	void use(PipelineSettings settings);

	const PipelineCounts &counts() const {
		return counts_;
	}
	/* How full the queue is, from 0 to 1. */
	double fill() const {
		return queue_.fill();
	}

private:
	void run();
	void take_lines(std::string_view bytes, const PipelineSettings &settings);
	void take_line(std::string_view line, const PipelineSettings &settings);
	std::shared_ptr<const PipelineSettings> settings();

	std::mutex settings_mutex_;
	std::shared_ptr<const PipelineSettings> settings_;
	const Sink sink_;
	BoundedQueue<BudgetedBuffer> queue_;
	PayloadReader reader_;
	PipelineCounts counts_;
	std::thread thread_;
};

} // namespace kaq
