/*
 * One request or one trace as a file of HTML that shows itself: opened from disk, with no network
 * and no collector. viewer/build.mjs makes the page around the data, viewer/src/shared_file.ts
 * reads them. No state; any thread.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace kaq {

/* The page, with `kSharedFileData` where the data belong; empty where the viewer was not built. */
std::string_view shared_file_page();

constexpr std::string_view kSharedFileData = "<!--kaq-data-->";

enum class SharedKind { kRequest, kTrace };

/*
 * `answer` is that of /api/v1/request or /api/v1/trace; `now` in milliseconds since the Unix epoch.
 * Nothing of it can end the element that it stands in. REQUIRES: `page` names the place of the
 * data.
 */
std::string to_shared_file(std::string_view page, SharedKind kind, nlohmann::json answer,
						   int64_t now);

} // namespace kaq
