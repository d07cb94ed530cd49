/* kaq export --otlp: what is stored already, sent to another place. */
#pragma once

#include <string>
#include <vector>

#include "cli/command_line.h"

namespace kaq {

struct HistoryOptions {
	std::string url; /* empty: it is not wanted */
	std::vector<std::string> headers;
	std::vector<std::string> signals = {"traces"};
	std::string ca_file;
	bool keeps_literals = false;
};

/* Reads the store itself, beside a collector that runs; the exit status. */
int export_history(const HistoryOptions &history, const CommonOptions &common,
				   const FilterOptions &filter);

} // namespace kaq
