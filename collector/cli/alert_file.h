/* Keeps in a file what alerts were said and what of them is still to be posted, so that a restart
 * neither repeats nor forgets any. No state; one thread at a time for each file. */
#pragma once

#include <string>
#include <vector>

#include "cli/alerts.h"
#include "cli/webhook.h"
#include "util/row_file.h"

namespace kaq {

struct KeptAlerts {
	AlertMemory memory;
	std::vector<Webhook::Post> posts;
};

std::vector<FileRow> rows_of(const KeptAlerts &kept);

/* Nothing if there is no file; what cannot be read of it is left out. */
KeptAlerts read_alerts(const std::string &file);

} // namespace kaq
