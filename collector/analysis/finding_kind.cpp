#include "analysis/finding_kind.h"

namespace kaq {

const std::vector<std::string_view> &finding_names() {
	static const std::vector<std::string_view> names = {"failure",
														"time-limit",
														"duplicate-statement",
														"repeated-statement",
														"slow-statement",
														"repeated-cache-call",
														"calls-in-sequence",
														"slow-call",
														"failed-call",
														"waiting",
														"slow-code",
														"polling",
														"span-limit"};
	return names;
}

std::string_view finding_name(FindingKind kind) {
	return finding_names()[static_cast<size_t>(kind)];
}

} // namespace kaq
