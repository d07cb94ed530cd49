#include "http/login_codes.h"

#include <algorithm>

#include "http/access.h"
#include "util/random.h"

namespace kaq {
namespace {

constexpr size_t kBytes = 24;

} // namespace

std::string LoginCodes::issue(Clock::time_point now) {
	std::string code = random_hex(kBytes);
	std::lock_guard lock(mutex_);
	if (codes_.size() >= kMost) {
		codes_.pop_front();
	}
	codes_.push_back({code, now + kLifetime});
	return code;
}

bool LoginCodes::take(const std::string &code, Clock::time_point now) {
	std::lock_guard lock(mutex_);
	while (!codes_.empty() && codes_.front().ends <= now) {
		codes_.pop_front();
	}
	auto found = std::find_if(codes_.begin(), codes_.end(), [&code](const Code &each) {
		return is_same_secret(code, each.text);
	});
	if (found == codes_.end()) {
		return false;
	}
	codes_.erase(found);
	return true;
}

} // namespace kaq
