#include "ingest/handshake_counts.h"

#include <iterator>

namespace kaq {
namespace {

constexpr const char *kOther = "other";
constexpr size_t kMostApplications = 256;
constexpr size_t kMostInstances = 64; /* of an application: a visitor may choose the port */
constexpr size_t kMostTallies = 32768;
constexpr std::chrono::hours kTurn{1};

std::string key_of(const HandshakeCount &request) {
	std::string key = request.instance;
	return key.append(1, '\0').append(request.name);
}

/* Whether the set has it, after it was added if there was room. */
bool has_room(std::unordered_set<std::string> &set, const std::string &text, size_t most) {
	return set.count(text) > 0 || (set.size() < most && set.insert(text).second);
}

} // namespace

struct HandshakeCounter::Batch {
	std::vector<HandshakeCount> counts;
	Table forgotten; /* freed by who takes the batch, since that takes time */
};

HandshakeCounter::HandshakeCounter() : batch_(std::make_unique<Batch>()) {
}

HandshakeCounter::~HandshakeCounter() {
	delete published_.load();
}

const HandshakeTally *HandshakeCounter::earlier_tally(const std::string &application,
													  const std::string &key) const {
	auto found = earlier_.applications.find(application);
	if (found == earlier_.applications.end()) {
		return nullptr;
	}
	auto tally = found->second.tallies.find(key);
	return tally == found->second.tallies.end() ? nullptr : &tally->second;
}

HandshakeTally &HandshakeCounter::tally_of(HandshakeCount &request, size_t most_names,
										   uint32_t share, ShareCounter &begin) {
	auto &applications = current_.applications;
	if (applications.size() >= kMostApplications && applications.count(request.application) == 0) {
		request.application = kOther;
	}
	Application &application = applications[request.application];
	auto found = application.tallies.find(key_of(request));
	if (found != application.tallies.end()) {
		return found->second;
	}
	bool is_full = current_.tallies >= kMostTallies;
	if (is_full || !has_room(application.names, request.name, most_names)) {
		request.name = kOther;
	}
	if (is_full || !has_room(application.instances, request.instance, kMostInstances)) {
		request.instance = kOther;
	}
	std::string key = key_of(request);
	auto [place, is_new] = application.tallies.try_emplace(key);
	if (is_new) {
		current_.tallies++;
		const HandshakeTally *earlier = earlier_tally(request.application, key);
		if (earlier) {
			place->second = *earlier;
		} else {
			/* Each new name begins elsewhere, so that many rare ones together get their share. */
			place->second.wanted = ShareCounter(begin.owed());
			begin.next(share);
		}
	}
	return place->second;
}

HandshakeCount &HandshakeCounter::count_of(HandshakeTally &tally, const HandshakeCount &request) {
	std::vector<HandshakeCount> &counts = batch_->counts;
	if (tally.batch != batch_number_) {
		tally.batch = batch_number_;
		tally.place = counts.size();
		counts.push_back(request);
	}
	return counts[tally.place];
}

bool HandshakeCounter::is_monitored(const HandshakeCount &request, size_t most_names,
									uint32_t share, uint32_t load_share, ShareCounter &begin) {
	HandshakeCount counted = request;
	HandshakeTally &tally = tally_of(counted, most_names, share, begin);
	bool is_wanted = tally.wanted.next(share);
	bool is_monitored = is_wanted && tally.kept.next(load_share);
	HandshakeCount &count = count_of(tally, counted);
	count.asked++;
	count.monitored += is_monitored;
	count.shed += is_wanted && !is_monitored;
	return is_monitored;
}

void HandshakeCounter::publish(Clock::time_point now) {
	if (published_.load(std::memory_order_acquire)) {
		return; /* it is not wanted yet */
	}
	if (now - turned_ >= kTurn) {
		turned_ = now;
		batch_->forgotten = std::move(earlier_);
		earlier_ = std::move(current_);
		current_ = {};
	}
	if (!batch_->counts.empty() || !batch_->forgotten.applications.empty()) {
		published_.store(batch_.release(), std::memory_order_release);
		batch_ = std::make_unique<Batch>();
		batch_number_++;
	}
}

std::vector<HandshakeCount> HandshakeCounter::take() {
	std::unique_ptr<Batch> batch(published_.exchange(nullptr, std::memory_order_acq_rel));
	return batch ? std::move(batch->counts) : std::vector<HandshakeCount>();
}

std::vector<HandshakeCount> HandshakeCounter::take_rest() {
	std::vector<HandshakeCount> counts = take();
	std::vector<HandshakeCount> &rest = batch_->counts;
	counts.insert(counts.end(), std::make_move_iterator(rest.begin()),
				  std::make_move_iterator(rest.end()));
	rest.clear();
	batch_number_++;
	return counts;
}

} // namespace kaq
