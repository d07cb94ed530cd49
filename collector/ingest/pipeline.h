/*
 * From the bytes of a connection to transactions, on threads of its own. What has been accepted is
 * freed of its secrets, gets its name and is told to a sink, or it is counted as refused.
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
enum class Notice { kNotMonitored, kNoUri, kPortFilter, kProbe, kOther };
constexpr size_t kNotices = 5;
constexpr size_t kPayloadErrors = 5;

/* By which the collector's own programs see whether the data port is served. */
constexpr std::string_view kProbeLine = "message:\tkaq.probe\n";

/* A word for each, as metrics and logs use it: "not-monitored". */
std::string_view notice_name(Notice notice);
Notice notice_of(std::string_view text);

struct PipelineCounts {
	std::atomic<uint64_t> transactions{0};
	std::array<std::atomic<uint64_t>, kNotices> notices{};
	std::array<std::atomic<uint64_t>, kPayloadErrors> errors{};
	std::atomic<uint64_t> incomplete{0}; /* no line feed at the end */
	std::atomic<uint64_t> cut{0};        /* transactions with more in lists and maps than is kept */
	std::atomic<uint64_t> failed{0};     /* given up for want of memory, or a mistake of ours */
};

struct PipelineSettings {
	ScrubSettings scrub;
	std::vector<NamingRule> naming = usual_naming_rules();
};

class Pipeline {
public:
	/* Each is called on a thread of its own. */
	using Sink = std::function<void(std::shared_ptr<const Transaction>)>;

	Pipeline(PipelineSettings settings, Sink sink);
	/* As many threads as there are sinks; what each is told is in the order of arrival. */
	Pipeline(PipelineSettings settings, std::vector<Sink> sinks);
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
	struct Worker;

	void run(Worker &worker);
	void take_lines(std::string_view bytes, const PipelineSettings &settings, Worker &worker);
	void take_line(std::string_view line, const PipelineSettings &settings, Worker &worker);
	void take_payload(std::string_view line, const PipelineSettings &settings, Worker &worker);
	std::shared_ptr<const PipelineSettings> settings();

	std::mutex large_mutex_; /* held while a large line is read */
	std::mutex settings_mutex_;
	std::shared_ptr<const PipelineSettings> settings_;
	BoundedQueue<BudgetedBuffer> queue_;
	PipelineCounts counts_;
	std::vector<std::unique_ptr<Worker>> workers_;
};

} // namespace kaq
