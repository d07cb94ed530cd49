#include "export/request_sender.h"

#include <xxhash.h>

#include <algorithm>

#include "analysis/naming.h"
#include "util/log.h"
#include "util/system_time.h"

namespace kaq {
namespace {

using std::chrono::milliseconds;

constexpr size_t kMostRowsAtOnce = 1000;
constexpr size_t kMostBytesAtOnce = 8 * 1024 * 1024;
/* 2 to the power of that, times the first pause, is longer than any. */
constexpr int kMostDoublings = 20;

bool is_in_share(const std::string &trace, double share) {
	constexpr double kAll = 18446744073709551616.0;
	return share >= 1 ||
		   static_cast<double>(XXH3_64bits(trace.data(), trace.size())) < share * kAll;
}

} // namespace

RequestSender::RequestSender(Store &store, const DestinationSettings &settings, OtlpSignal signal,
							 const StorePlace &begin, OnMove on_move)
	: store_(store), settings_(settings), signal_(signal), on_move_(std::move(on_move)),
	  sender_(settings.endpoint, signal), random_(std::random_device()()), place_(begin) {
	status_.name = settings_.name;
	status_.signal = signal_;
	status_.url = without_credentials(sender_.url());
}

void RequestSender::end() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	sender_.end();
	changed_.notify_all();
}

void RequestSender::move_to(const StorePlace &place, bool is_sent) {
	{
		std::lock_guard lock(mutex_);
		if (place.file == place_.file && place.row == place_.row) {
			return;
		}
		place_ = place;
	}
	on_move_(place, is_sent);
}

bool RequestSender::look() {
	ArrivalSearch search;
	search.wants = [this](const RequestRow &row) { return wants(row); };
	search.most_rows = kMostRowsAtOnce;
	search.most_bytes = kMostBytesAtOnce;
	{
		std::lock_guard lock(mutex_);
		search.after = place_;
	}
	Arrivals found = store_.arrivals(search);
	if (found.has_gap) {
		std::lock_guard lock(mutex_);
		status_.gaps++;
	}
	Batch batch;
	for (Arrivals::Request &arrival : found.requests) {
		std::shared_ptr<Request> request = read(std::move(arrival));
		if (request && !add(request, batch)) {
			return false;
		}
		std::lock_guard lock(mutex_);
		waiting_since_ = batch.empty() ? 0 : batch.front().request->end;
	}
	if (!deliver(batch)) {
		return false;
	}
	move_to(found.next, false);
	std::lock_guard lock(mutex_);
	waiting_since_ = found.has_more ? waiting_since_ : 0;
	return found.has_more;
}

bool RequestSender::wants(const RequestRow &row) const {
	const Summary &summary = row.summary;
	return (signal_ != OtlpSignal::kLogs || summary.failures > 0) &&
		   settings_.range.has(summary.start) && (!settings_.is_failed || summary.is_failed) &&
		   summary.duration >= settings_.slower.count() &&
		   matches_glob(summary.application, settings_.application) &&
		   matches_glob(summary.name, settings_.transaction) &&
		   is_in_share(summary.trace_id, settings_.share);
}

std::shared_ptr<RequestSender::Request> RequestSender::read(Arrivals::Request &&arrival) {
	auto transaction = reader_.read_json(std::move(arrival.document));
	if (!transaction || transaction->spans.empty()) {
		std::lock_guard lock(mutex_);
		status_.unreadable++;
		return nullptr;
	}
	auto request = std::make_shared<Request>(std::move(*transaction), signal_, settings_.traces);
	request->place = arrival.place;
	request->end = arrival.row.summary.start + arrival.row.summary.duration;
	return request->writer->items() > 0 ? request : nullptr;
}

/* One that fits into a batch is not spread over two for its number of items. */
bool RequestSender::add(const std::shared_ptr<const Request> &request, Batch &batch) {
	const size_t all = std::min(request->writer->items(), settings_.batch_items);
	for (size_t from = 0; from < request->writer->items();) {
		size_t items = 0;
		size_t bytes = 0;
		for (const Part &each : batch) {
			items += each.part.items();
			bytes += each.part.bytes.size();
		}
		bool is_too_much = from == 0 && items + all > settings_.batch_items;
		if (!batch.empty() &&
			(is_too_much || items >= settings_.batch_items || bytes >= settings_.batch_bytes)) {
			if (!deliver(batch)) {
				return false;
			}
			items = bytes = 0;
		}
		batch.push_back({request, request->writer->write(from, settings_.batch_items - items,
														 settings_.batch_bytes - bytes)});
		from = batch.back().part.to;
	}
	return true;
}

bool RequestSender::deliver(Batch &batch) {
	if (batch.empty()) {
		return true;
	}
	uint64_t ended = 0;
	std::optional<StorePlace> place;
	for (const Part &each : batch) {
		ended += each.is_last() ? 1 : 0;
		place = each.is_last() ? each.request->place : place;
	}
	std::vector<Batch> left;
	left.push_back(std::move(batch));
	batch = {};
	while (!left.empty()) {
		std::string bytes;
		int64_t items = 0;
		for (const Part &each : left.back()) {
			bytes += each.part.bytes;
			items += static_cast<int64_t>(each.part.items());
		}
		if (!keep_rate(items)) {
			return false;
		}
		OtlpAnswer answer = sender_.send(bytes);
		if (answer.outcome == OtlpOutcome::kTryAgain) {
			if (!wait_to_try_again(answer)) {
				return false;
			}
			continue;
		}
		std::vector<Batch> halves;
		if (answer.outcome == OtlpOutcome::kTooLarge) {
			halves = split(left.back());
		}
		if (halves.empty()) {
			note(answer, items);
		}
		left.pop_back();
		left.insert(left.end(), halves.rbegin(), halves.rend());
	}
	if (place) {
		move_to(*place, true);
	}
	std::lock_guard lock(mutex_);
	status_.requests += ended;
	return true;
}

void RequestSender::note(const OtlpAnswer &answer, int64_t items) {
	failures_ = 0;
	bool is_taken = answer.outcome == OtlpOutcome::kTaken;
	int64_t rejected = std::min(answer.rejected, items);
	if (!is_taken || rejected > 0) {
		log_some(LogLevel::kWarning, "export-" + settings_.name,
				 settings_.name + " does not want " + std::to_string(is_taken ? rejected : items) +
					 " spans or log records, which are not sent to it again" +
					 (answer.reason.empty() ? "" : ": " + answer.reason));
	}
	std::lock_guard lock(mutex_);
	status_.next_try = 0;
	status_.trouble = is_taken ? "" : answer.reason;
	if (!is_taken) {
		status_.refused += static_cast<uint64_t>(items);
		return;
	}
	status_.batches++;
	status_.items += static_cast<uint64_t>(items - rejected);
	status_.rejected += static_cast<uint64_t>(rejected);
	status_.last_taken = system_time();
}

std::vector<RequestSender::Batch> RequestSender::split(const Batch &batch) {
	if (batch.size() > 1) {
		auto middle = batch.begin() + static_cast<std::ptrdiff_t>(batch.size() / 2);
		return {Batch(batch.begin(), middle), Batch(middle, batch.end())};
	}
	const Part &whole = batch.front();
	if (whole.part.items() < 2) {
		return {};
	}
	size_t half = whole.part.items() / 2;
	const OtlpWriter &writer = *whole.request->writer;
	OtlpPart first = writer.write(whole.part.from, half, SIZE_MAX);
	OtlpPart second = writer.write(first.to, whole.part.to - first.to, SIZE_MAX);
	return {Batch{Part{whole.request, std::move(first)}},
			Batch{Part{whole.request, std::move(second)}}};
}

bool RequestSender::wait(milliseconds time) {
	std::unique_lock lock(mutex_);
	return !changed_.wait_for(lock, time, [this] { return is_to_end_; });
}

/* Destinations that ended together are not asked together. */
bool RequestSender::wait_to_try_again(const OtlpAnswer &answer) {
	milliseconds longest =
		std::min(settings_.longest_pause,
				 settings_.first_pause * (1 << std::min(failures_, kMostDoublings)));
	first_failure_ = failures_++ == 0 ? Clock::now() : first_failure_;
	std::uniform_int_distribution<int64_t> jitter(longest.count() / 2, longest.count());
	milliseconds pause(jitter(random_));
	if (answer.pause) {
		pause = std::max<milliseconds>(pause, *answer.pause);
	}
	{
		std::lock_guard lock(mutex_);
		status_.retries++;
		status_.trouble = answer.reason;
		status_.next_try = system_time() + pause.count();
	}
	bool is_hopeless = settings_.patience > milliseconds(0) &&
					   Clock::now() + pause - first_failure_ > settings_.patience;
	return !is_hopeless && wait(pause);
}

bool RequestSender::keep_rate(int64_t items) {
	Clock::time_point now = Clock::now();
	auto pause = std::chrono::ceil<milliseconds>(next_batch_ - now);
	next_batch_ = std::max(now, next_batch_) +
				  std::chrono::microseconds(items * 1000000 / settings_.spans_per_second);
	return wait(std::max(pause, milliseconds(0)));
}

DestinationStatus RequestSender::status() {
	std::unique_lock lock(mutex_);
	DestinationStatus status = status_;
	StorePlace place = place_;
	int64_t since = waiting_since_;
	lock.unlock();
	status.waiting = store_.requests_after(place);
	status.lag = since == 0 ? 0 : std::max<int64_t>(system_time() - since, 0);
	return status;
}

} // namespace kaq
