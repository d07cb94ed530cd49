#include "ingest/rules_policy.h"

#include <algorithm>

namespace kaq {
namespace {

/* Patterns are tried on no more of a path, which a visitor chooses. */
constexpr size_t kLongestPath = 1024;

} // namespace

RulesPolicy::RulesPolicy(RulesSettings settings, HandshakeCounter &counter,
						 const OverloadControl &overload)
	: settings_(std::move(settings)), all_names_(with_usual_rules(settings_.names)),
	  counter_(counter), overload_(overload), begins_(settings_.monitor.size() + 1) {
	settings_.monitor.emplace_back();
}

size_t RulesPolicy::rule_of(const HandshakeRequest &request, std::string_view path) const {
	size_t i = 0;
	while (i + 1 < settings_.monitor.size() &&
		   !(matches_glob(request.application, settings_.monitor[i].application) &&
			 matches_glob(path, settings_.monitor[i].transaction))) {
		i++;
	}
	return i;
}

bool RulesPolicy::is_suspended(const std::string &application, const std::string &instance) const {
	const std::vector<Suspension> &all = settings_.suspensions;
	return std::any_of(all.begin(), all.end(),
					   [&](const Suspension &each) { return each.covers(application, instance); });
}

HandshakeAnswer RulesPolicy::answer(const HandshakeRequest &request) {
	HandshakeAnswer answer;
	answer.instance_id = instance_id_of(request);
	/* As a request's own payload is called, so that both are counted under one name. */
	std::string application = without_secrets(request.application, settings_.scrub);
	answer.application_id = application_id_of(application);
	bool is_nobody = request.application.empty() && request.transaction.empty();
	if (is_nobody || request.application == kProbeApplication) {
		return answer;
	}
	std::string_view asked = std::string_view(request.transaction).substr(0, kLongestPath);
	std::string path = without_secrets(asked.substr(0, asked.find('?')), settings_.scrub);
	size_t place = rule_of(request, path);
	const MonitorRule &rule = settings_.monitor[place];
	answer.sql_stack_seconds = rule.sql_stack_seconds;
	if (request.takes_snippet) {
		answer.snippet = rule.snippet;
	}
	/* The query, which a name with parameters needs, is not known yet. */
	const NamingRule *naming = naming_rule(request.application, path, settings_.names);
	if (naming && naming->parameters.empty()) {
		answer.transaction = naming->name;
	}
	HandshakeCount count;
	count.application = std::move(application);
	count.name = transaction_name(request.application, path, "", all_names_);
	count.instance = answer.instance_id;
	uint32_t share = is_suspended(count.application, count.instance) ? 0 : rule.share;
	answer.is_monitored = counter_.is_monitored(count, settings_.most_names, share,
												overload_.share(), begins_[place]);
	return answer;
}

void RulesPolicy::on_tick() {
	counter_.publish(HandshakeCounter::Clock::now());
}

} // namespace kaq
