/* Saves what can be read of a damaged file of requests. */
#pragma once

#include <atomic>
#include <string>

#include "store/request_directory.h"

namespace kaq {

/*
 * Writes the requests that can be read of one file to a new one, which is closed and complete
 * afterwards. Takes up to a minute, and ends before where `goes_on` becomes false. Throws
 * SQLite::Exception if the new file cannot be written.
 */
RequestDirectory::Salvaged salvage(const std::string &damaged, const std::string &fresh,
								   const std::atomic<bool> &goes_on);

} // namespace kaq
