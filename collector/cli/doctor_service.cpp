#include "cli/doctor_service.h"

#include <cstdio>
#include <fstream>

#include "util/log.h"

namespace kaq {
namespace {

constexpr std::chrono::seconds kFresh{30};
constexpr size_t kLongestReport = 512 * 1024;

bool write_file(const std::string &path, const std::string &text) {
	std::ofstream file(path, std::ios::binary | std::ios::trunc);
	file << text;
	file.close();
	return file.good();
}

} // namespace

std::string DoctorService::file() const {
	return directory_ + "/doctor.json";
}

nlohmann::json DoctorService::seen() {
	std::lock_guard lock(mutex_);
	if (seen_.is_null() || Clock::now() - seen_at_ > kFresh) {
		DoctorOptions options;
		options.common.configuration = configuration_file_;
		options.common.store = directory_;
		seen_ = examine(options);
		seen_at_ = Clock::now();
	}
	return seen_;
}

Answer DoctorService::show() {
	nlohmann::json body = {{"collector", seen()}, {"root", nullptr}};
	std::ifstream kept(file(), std::ios::binary);
	nlohmann::json report = nlohmann::json::parse(kept, nullptr, false);
	if (report.is_object()) {
		body["root"] = std::move(report);
	}
	return json_answer(std::move(body));
}

Answer DoctorService::keep(const std::string &report) {
	nlohmann::json parsed = nlohmann::json::parse(report, nullptr, false);
	bool is_report = parsed.is_object() && parsed.contains("checks") && parsed["checks"].is_array();
	if (!is_report || report.size() > kLongestReport) {
		return error_answer(400, "this is no report of the doctor", "'kaq doctor' makes them",
							"report");
	}
	/* Read by others meanwhile. */
	std::string fresh = file() + ".new";
	if (!write_file(fresh, report) || std::rename(fresh.c_str(), file().c_str()) != 0) {
		log_line(LogLevel::kWarning, "a report of the doctor could not be written to " + file());
		return error_answer(500, "the report could not be written", "is the disk full?");
	}
	return json_answer({{"kept", true}});
}

} // namespace kaq
