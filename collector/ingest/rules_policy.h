/* Answers handshakes by the rules of the configuration, and counts them. */
#pragma once

#include <string_view>
#include <vector>

#include "analysis/naming.h"
#include "analysis/scrub.h"
#include "ingest/handshake_counts.h"
#include "ingest/handshake_policy.h"
#include "ingest/monitor_rule.h"
#include "ingest/overload_control.h"
#include "ingest/suspensions.h"

namespace kaq {

/* The application by which the collector measures its own handshakes; they are not counted. */
constexpr std::string_view kProbeApplication = "kaq.probe";

struct RulesSettings {
	std::vector<MonitorRule> monitor;
	std::vector<NamingRule> names; /* before the usual ones */
	size_t most_names = 2000;      /* of an application */
	ScrubSettings scrub;           /* paths may hold secrets */
	std::vector<Suspension> suspensions;
};

class RulesPolicy : public HandshakePolicy {
public:
	/* REQUIRES: the counter and the control outlive the policy. */
	RulesPolicy(RulesSettings settings, HandshakeCounter &counter, const OverloadControl &overload);

	HandshakeAnswer answer(const HandshakeRequest &request) override;
	void on_tick() override;

private:
	bool is_suspended(const std::string &application, const std::string &instance) const;
	size_t rule_of(const HandshakeRequest &request, std::string_view path) const;

	RulesSettings settings_; /* the last rule is the one that always matches */
	std::vector<NamingRule> all_names_;
	HandshakeCounter &counter_;
	const OverloadControl &overload_;
	std::vector<ShareCounter> begins_; /* by rule */
};

} // namespace kaq
