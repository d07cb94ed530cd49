#include "util/row_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string_view>

#include "util/control_character.h"
#include "util/query_string.h"
#include "util/regular_file.h"
#include "util/unique_fd.h"

namespace kaq {
namespace {

constexpr size_t kMostBytes = 16 * 1024 * 1024;

/* What could be taken for a tab or the end of a line is written as in a form. */
std::string encoded(const std::string &text) {
	std::string field;
	for (char each : text) {
		if (is_control_character(each) || each == '%' || each == '+') {
			auto byte = static_cast<unsigned char>(each);
			field += '%';
			field += "0123456789ABCDEF"[byte >> 4];
			field += "0123456789ABCDEF"[byte & 15];
		} else {
			field += each;
		}
	}
	return field;
}

FileRow row_of(const std::string &line) {
	FileRow row;
	for (size_t begin = 0; begin <= line.size();) {
		size_t end = std::min(line.find('\t', begin), line.size());
		row.push_back(form_decoded(std::string_view(line).substr(begin, end - begin)));
		begin = end + 1;
	}
	return row;
}

std::string line_of(const FileRow &row) {
	std::string line;
	for (const std::string &field : row) {
		line += (line.empty() ? "" : "\t") + encoded(field);
	}
	return line + '\n';
}

bool write_all(int fd, std::string_view text) {
	while (!text.empty()) {
		ssize_t count = ::write(fd, text.data(), text.size());
		if (count <= 0) {
			return false;
		}
		text.remove_prefix(static_cast<size_t>(count));
	}
	return fsync(fd) == 0;
}

} // namespace

std::vector<FileRow> read_rows(const std::string &file, size_t most) {
	std::vector<FileRow> rows;
	std::istringstream lines(beginning_of(file, kMostBytes).value_or(""));
	for (std::string line; rows.size() < most && std::getline(lines, line);) {
		rows.push_back(row_of(line));
	}
	return rows;
}

bool write_rows(const std::string &file, const std::vector<FileRow> &rows) {
	std::string text;
	for (const FileRow &row : rows) {
		text += line_of(row);
	}
	std::string next = file + ".new";
	UniqueFd fd(open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
	return fd && write_all(fd.get(), text) && rename(next.c_str(), file.c_str()) == 0;
}

} // namespace kaq
