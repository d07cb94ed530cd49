#include "cli/service_manager.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <chrono>

namespace kaq {
namespace {

void tell(const std::string &what) {
	sd_notify(0, what.c_str());
}

} // namespace

void tell_ready(const std::string &status) {
	tell("READY=1\nSTATUS=" + status);
}

void tell_reloading() {
	auto now = std::chrono::duration_cast<std::chrono::microseconds>(
		std::chrono::steady_clock::now().time_since_epoch());
	tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count()));
}

void tell_stopping() {
	tell("STOPPING=1");
}

void tell_status(const std::string &status) {
	tell("STATUS=" + status);
}

void tell_alive() {
	using Clock = std::chrono::steady_clock;
	static const bool is_wanted = sd_watchdog_enabled(0, nullptr) > 0;
	static std::atomic<Clock::rep> last{0};
	Clock::rep now = Clock::now().time_since_epoch().count();
	if (is_wanted && now - last >= Clock::duration(std::chrono::seconds(1)).count()) {
		last = now;
		tell("WATCHDOG=1");
	}
}

} // namespace kaq
