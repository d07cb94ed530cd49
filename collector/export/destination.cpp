#include "export/destination.h"

#include <xxhash.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "analysis/naming.h"
#include "util/background.h"
#include "util/log.h"
#include "util/row_file.h"
#include "util/system_time.h"

namespace kaq {
namespace {

using std::chrono::milliseconds;

constexpr size_t kPlaceFields = 2;
constexpr size_t kMostRowsAtOnce = 1000;
constexpr size_t kMostBytesAtOnce = 8 * 1024 * 1024;
/* Of a place that only what is not wanted lies before. */
constexpr std::chrono::seconds kBetweenKeeps{5};
constexpr std::chrono::seconds kPauseAfterMishap{10};
/* 2 to the power of that, times the first pause, is longer than any. */
constexpr int kMostDoublings = 20;

bool is_in_share(const std::string &trace, double share) {
	constexpr double kAll = 18446744073709551616.0;
	return share >= 1 ||
		   static_cast<double>(XXH3_64bits(trace.data(), trace.size())) < share * kAll;
}

int64_t number(const std::string &text) {
	return std::strtoll(text.c_str(), nullptr, 10);
}

} // namespace

std::string without_credentials(const std::string &url) {
	size_t begin = url.find("://");
	begin = begin == std::string::npos ? 0 : begin + 3;
	size_t end = std::min(url.find_first_of("?#"), url.size());
	size_t path = std::min(url.find('/', begin), end);
	size_t user = url.rfind('@', path);
	size_t host = user != std::string::npos && user >= begin ? user + 1 : begin;
	return url.substr(0, begin) + url.substr(host, end - host);
}

bool operator==(const DestinationSettings &one, const DestinationSettings &other) {
	auto all = [](const DestinationSettings &of) {
		return std::tie(of.name, of.endpoint.url, of.endpoint.headers, of.endpoint.ca_file,
						of.endpoint.connect_time, of.endpoint.time, of.traces.has_literals,
						of.traces.host, of.application, of.transaction, of.slower, of.is_failed,
						of.share, of.batch_spans, of.batch_bytes, of.spans_per_second, of.poll_time,
						of.first_pause, of.longest_pause);
	};
	return all(one) == all(other);
}

Destination::Destination(Store &store, DestinationSettings settings, const std::string &directory)
	: store_(store), settings_(std::move(settings)), file_(directory + "/export-" + settings_.name),
	  sender_(settings_.endpoint), random_(std::random_device()()) {
	place_ = first_place();
	status_.name = settings_.name;
	status_.url = without_credentials(sender_.url());
	thread_ = std::thread([this] { run(); });
}

Destination::~Destination() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	sender_.end();
	changed_.notify_all();
	thread_.join();
	keep(place_);
}

StorePlace Destination::first_place() {
	std::vector<FileRow> rows = read_rows(file_, 1);
	if (!rows.empty() && rows[0].size() == kPlaceFields) {
		return {number(rows[0][0]), number(rows[0][1])};
	}
	StorePlace place = store_.last_place();
	keep(place);
	return place;
}

void Destination::keep(const StorePlace &place) {
	kept_at_ = Clock::now();
	if (!write_rows(file_, {{std::to_string(place.file), std::to_string(place.row)}})) {
		log_some(LogLevel::kError, "export-place",
				 "cannot write " + file_ + ": after a restart requests will be sent again");
	}
}

void Destination::move_to(const StorePlace &place, bool is_kept) {
	bool has_moved = false;
	{
		std::lock_guard lock(mutex_);
		has_moved = place.file != place_.file || place.row != place_.row;
		place_ = place;
	}
	if (has_moved && (is_kept || Clock::now() - kept_at_ >= kBetweenKeeps)) {
		keep(place);
	}
}

void Destination::run() {
	work_in_background("kaq-export");
	bool has_more = true;
	while (has_more || wait(settings_.poll_time)) {
		try {
			has_more = look();
		} catch (const std::exception &error) {
			log_some(LogLevel::kError, "export", settings_.name + ": " + error.what());
			has_more = wait(kPauseAfterMishap);
		}
		std::lock_guard lock(mutex_);
		if (is_to_end_) {
			return;
		}
	}
}

bool Destination::look() {
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

bool Destination::wants(const RequestRow &row) const {
	const Summary &summary = row.summary;
	return (!settings_.is_failed || summary.is_failed) &&
		   summary.duration >= settings_.slower.count() &&
		   matches_glob(summary.application, settings_.application) &&
		   matches_glob(summary.name, settings_.transaction) &&
		   is_in_share(summary.trace_id, settings_.share);
}

std::shared_ptr<Destination::Request> Destination::read(Arrivals::Request &&arrival) {
	auto transaction = reader_.read_json(std::move(arrival.document));
	if (!transaction || transaction->spans.empty()) {
		std::lock_guard lock(mutex_);
		status_.unreadable++;
		return nullptr;
	}
	auto request = std::make_shared<Request>(std::move(*transaction), settings_.traces);
	request->place = arrival.place;
	request->end = arrival.row.summary.start + arrival.row.summary.duration;
	return request;
}

/* One that fits into a batch is not spread over two for its number of spans. */
bool Destination::add(const std::shared_ptr<const Request> &request, Batch &batch) {
	const size_t all = std::min(request->writer.spans(), settings_.batch_spans);
	for (size_t from = 0; from < request->writer.spans();) {
		size_t spans = 0;
		size_t bytes = 0;
		for (const Part &each : batch) {
			spans += each.part.spans();
			bytes += each.part.bytes.size();
		}
		bool is_too_much = from == 0 && spans + all > settings_.batch_spans;
		if (!batch.empty() &&
			(is_too_much || spans >= settings_.batch_spans || bytes >= settings_.batch_bytes)) {
			if (!deliver(batch)) {
				return false;
			}
			spans = bytes = 0;
		}
		batch.push_back({request, request->writer.write(from, settings_.batch_spans - spans,
														settings_.batch_bytes - bytes)});
		from = batch.back().part.to;
	}
	return true;
}

bool Destination::deliver(Batch &batch) {
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
		int64_t spans = 0;
		for (const Part &each : left.back()) {
			bytes += each.part.bytes;
			spans += static_cast<int64_t>(each.part.spans());
		}
		if (!keep_rate(spans)) {
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
			note(answer, spans);
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

void Destination::note(const OtlpAnswer &answer, int64_t spans) {
	failures_ = 0;
	bool is_taken = answer.outcome == OtlpOutcome::kTaken;
	int64_t rejected = std::min(answer.rejected, spans);
	if (!is_taken || rejected > 0) {
		log_some(LogLevel::kWarning, "export-" + settings_.name,
				 settings_.name + " does not want " + std::to_string(is_taken ? rejected : spans) +
					 " spans, which are not sent to it again" +
					 (answer.reason.empty() ? "" : ": " + answer.reason));
	}
	std::lock_guard lock(mutex_);
	status_.next_try = 0;
	status_.trouble = is_taken ? "" : answer.reason;
	if (!is_taken) {
		status_.refused += static_cast<uint64_t>(spans);
		return;
	}
	status_.batches++;
	status_.spans += static_cast<uint64_t>(spans - rejected);
	status_.rejected += static_cast<uint64_t>(rejected);
	status_.last_taken = system_time();
}

std::vector<Destination::Batch> Destination::split(const Batch &batch) const {
	if (batch.size() > 1) {
		auto middle = batch.begin() + static_cast<std::ptrdiff_t>(batch.size() / 2);
		return {Batch(batch.begin(), middle), Batch(middle, batch.end())};
	}
	const Part &whole = batch.front();
	if (whole.part.spans() < 2) {
		return {};
	}
	size_t half = whole.part.spans() / 2;
	const OtlpTraceWriter &writer = whole.request->writer;
	OtlpPart first = writer.write(whole.part.from, half, SIZE_MAX);
	OtlpPart second = writer.write(first.to, whole.part.to - first.to, SIZE_MAX);
	return {Batch{Part{whole.request, std::move(first)}},
			Batch{Part{whole.request, std::move(second)}}};
}

bool Destination::wait(milliseconds time) {
	std::unique_lock lock(mutex_);
	return !changed_.wait_for(lock, time, [this] { return is_to_end_; });
}

/* Destinations that ended together are not asked together. */
bool Destination::wait_to_try_again(const OtlpAnswer &answer) {
	milliseconds longest =
		std::min(settings_.longest_pause,
				 settings_.first_pause * (1 << std::min(failures_, kMostDoublings)));
	failures_++;
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
	return wait(pause);
}

bool Destination::keep_rate(int64_t spans) {
	Clock::time_point now = Clock::now();
	auto pause = std::chrono::ceil<milliseconds>(next_batch_ - now);
	next_batch_ = std::max(now, next_batch_) +
				  std::chrono::microseconds(spans * 1000000 / settings_.spans_per_second);
	return wait(std::max(pause, milliseconds(0)));
}

DestinationStatus Destination::status() {
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
