/*
 * The pages that were built into the program (viewer/), as they are sent. No state; any thread.
 */
#pragma once

#include <string_view>
#include <vector>

namespace kaq {

struct ViewerFile {
	std::string_view path; /* "/app.js" */
	std::string_view type;
	std::string_view etag;
	std::string_view plain;
	std::string_view gzip;
};

/* None where npm was not at hand when the program was built. viewer/build.mjs writes it. */
const std::vector<ViewerFile> &viewer_files();

} // namespace kaq
