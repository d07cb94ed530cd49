/* Small tables in text files, which outlive the process: a line for each row, tabs between its
 * fields. Fields may hold anything. No state; one thread at a time for each file. */
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kaq {

using FileRow = std::vector<std::string>;

/* The first rows; none if there is no file. */
std::vector<FileRow> read_rows(const std::string &file, size_t most);

/* In place of what is there, which stays until all is written; false if that fails. Nobody but the
 * file's owner may read it. */
bool write_rows(const std::string &file, const std::vector<FileRow> &rows);

} // namespace kaq
