#include "ingest/pipeline.h"

#include <malloc.h>
#include <pthread.h>

#include <exception>
#include <string>

#include "util/log.h"

namespace kaq {
namespace {

/* The memory that they hold is bounded elsewhere. */
constexpr size_t kMostQueued = 65536;
/* What is longer takes several times as much while it is read: one at a time does. */
constexpr size_t kLargeLine = 4 * 1024 * 1024;

constexpr std::string_view kNoticePrefix = "message:\t";

template <typename Kind, size_t size>
void count(std::array<std::atomic<uint64_t>, size> &counters, Kind kind) {
	counters[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
}

bool begins_with(std::string_view text, std::string_view prefix) {
	return text.substr(0, prefix.size()) == prefix;
}

} // namespace

std::string_view notice_name(Notice notice) {
	switch (notice) {
	case Notice::kNotMonitored:
		return "not-monitored";
	case Notice::kNoUri:
		return "no-uri";
	case Notice::kPortFilter:
		return "port-filter";
	case Notice::kProbe:
		return "probe";
	case Notice::kOther:
		break;
	}
	return "other";
}

Notice notice_of(std::string_view text) {
	if (begins_with(text, "Request ended. No data collected")) {
		return Notice::kNotMonitored;
	}
	if (begins_with(text, "No request URI Found")) {
		return Notice::kNoUri;
	}
	if (text ==
		kProbeLine.substr(kNoticePrefix.size(), kProbeLine.size() - kNoticePrefix.size() - 1)) {
		return Notice::kProbe;
	}
	return begins_with(text, "Tracking disabled for instance") ? Notice::kPortFilter
															   : Notice::kOther;
}

struct Pipeline::Worker {
	explicit Worker(Sink one) : sink(std::move(one)) {
	}

	const Sink sink;
	PayloadReader reader;
	std::thread thread;
};

Pipeline::Pipeline(PipelineSettings settings, Sink sink)
	: Pipeline(std::move(settings), std::vector<Sink>{std::move(sink)}) {
}

Pipeline::Pipeline(PipelineSettings settings, std::vector<Sink> sinks)
	: settings_(std::make_shared<const PipelineSettings>(std::move(settings))),
	  queue_(kMostQueued) {
	for (Sink &sink : sinks) {
		workers_.push_back(std::make_unique<Worker>(std::move(sink)));
		Worker &worker = *workers_.back();
		worker.thread = std::thread([this, &worker] { run(worker); });
	}
}

Pipeline::~Pipeline() {
	queue_.close();
	for (const auto &worker : workers_) {
		worker->thread.join();
	}
}

bool Pipeline::accept(BudgetedBuffer &&bytes) {
	return queue_.try_put(std::move(bytes));
}

void Pipeline::run(Worker &worker) {
	pthread_setname_np(pthread_self(), "kaq-reader");
	while (std::optional<BudgetedBuffer> bytes = queue_.take()) {
		take_lines(bytes->bytes(), *settings(), worker);
	}
}

void Pipeline::use(PipelineSettings settings) {
	auto next = std::make_shared<const PipelineSettings>(std::move(settings));
	std::lock_guard lock(settings_mutex_);
	settings_.swap(next);
}

std::shared_ptr<const PipelineSettings> Pipeline::settings() {
	std::lock_guard lock(settings_mutex_);
	return settings_;
}

void Pipeline::take_lines(std::string_view bytes, const PipelineSettings &settings,
						  Worker &worker) {
	while (!bytes.empty()) {
		size_t end = bytes.find('\n');
		if (end == std::string_view::npos) {
			counts_.incomplete.fetch_add(1, std::memory_order_relaxed);
			return;
		}
		take_line(bytes.substr(0, end), settings, worker);
		bytes.remove_prefix(end + 1);
	}
}

void Pipeline::take_line(std::string_view line, const PipelineSettings &settings, Worker &worker) {
	if (begins_with(line, kNoticePrefix)) {
		count(counts_.notices, notice_of(line.substr(kNoticePrefix.size())));
		return;
	}
	std::unique_lock alone(large_mutex_, std::defer_lock);
	if (line.size() > kLargeLine) {
		alone.lock();
	}
	try {
		take_payload(line, settings, worker);
	} catch (const std::exception &error) {
		counts_.failed.fetch_add(1, std::memory_order_relaxed);
		log_some(LogLevel::kError, "payload",
				 std::string("a payload was given up: ") + error.what());
	}
	if (alone) {
		malloc_trim(0);
	}
}

void Pipeline::take_payload(std::string_view line, const PipelineSettings &settings,
							Worker &worker) {
	tl::expected<Transaction, PayloadError> transaction = worker.reader.read(line);
	if (!transaction) {
		count(counts_.errors, transaction.error());
		return;
	}
	counts_.transactions.fetch_add(1, std::memory_order_relaxed);
	counts_.cut.fetch_add(worker.reader.was_cut() ? 1 : 0, std::memory_order_relaxed);
	/* The name is made of what is left. */
	scrub(*transaction, settings.scrub);
	transaction->normalised_name = transaction->texts.keep(transaction_name(
		transaction->application, transaction->name, transaction->query_string, settings.naming));
	worker.sink(std::make_shared<const Transaction>(std::move(*transaction)));
}

} // namespace kaq
