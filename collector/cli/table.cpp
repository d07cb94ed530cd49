#include "cli/table.h"

#include <algorithm>
#include <utility>

#include "cli/format.h"

namespace kaq {
namespace {

constexpr size_t kGap = 2;

/* Columns that are left out have no width, and no gap. */
size_t total_of(const std::vector<size_t> &widths) {
	size_t total = 0;
	for (size_t width : widths) {
		total += width > 0 ? width + (total > 0 ? kGap : 0) : 0;
	}
	return total;
}

/* With everything cut that may be. */
size_t least_of(const std::vector<Column> &columns, std::vector<size_t> widths) {
	for (size_t i = 0; i < widths.size(); i++) {
		widths[i] = columns[i].least > 0 ? std::min(widths[i], columns[i].least) : widths[i];
	}
	return total_of(widths);
}

/* The widest of those that may be cut; none: their number. */
size_t widest_of(const std::vector<Column> &columns, const std::vector<size_t> &widths) {
	size_t widest = widths.size();
	for (size_t i = 0; i < widths.size(); i++) {
		bool may_be_cut = columns[i].least > 0 && widths[i] > columns[i].least;
		if (may_be_cut && (widest == widths.size() || widths[i] > widths[widest])) {
			widest = i;
		}
	}
	return widest;
}

} // namespace

void Table::add(std::vector<Cell> cells) {
	for (Cell &cell : cells) {
		cell.text = printable(cell.text);
	}
	rows_.push_back(std::move(cells));
}

std::vector<size_t> Table::widths(const Terminal &terminal) const {
	std::vector<size_t> widths;
	for (size_t i = 0; i < columns_.size(); i++) {
		size_t width = width_of(columns_[i].title);
		for (const std::vector<Cell> &row : rows_) {
			width = std::max(width, width_of(row[i].text));
		}
		widths.push_back(width);
	}
	auto wanted = static_cast<size_t>(terminal.width);
	if (wanted == 0) {
		return widths;
	}
	for (size_t i = columns_.size(); i-- > 0 && least_of(columns_, widths) > wanted;) {
		widths[i] = columns_[i].is_optional ? 0 : widths[i];
	}
	while (total_of(widths) > wanted) {
		size_t widest = widest_of(columns_, widths);
		if (widest == widths.size()) {
			break;
		}
		widths[widest]--;
	}
	return widths;
}

std::string Table::line(const std::vector<Cell> &cells, const std::vector<size_t> &widths,
						const Terminal &terminal) const {
	std::string line;
	std::string blanks; /* that only stand before something */
	for (size_t i = 0; i < columns_.size(); i++) {
		if (widths[i] == 0) {
			continue;
		}
		std::string text = shortened_to(cells[i].text, widths[i]);
		std::string room(widths[i] - width_of(text), ' ');
		bool is_right = columns_[i].align == Align::kRight;
		blanks += is_right ? room : "";
		if (!text.empty()) {
			line += std::exchange(blanks, "") + terminal.paint(text, cells[i].colour);
		}
		blanks += (is_right ? "" : room) + std::string(kGap, ' ');
	}
	return line + "\n";
}

std::string Table::text(const Terminal &terminal) const {
	const std::vector<size_t> fits = widths(terminal);
	std::vector<Cell> titles;
	for (const Column &column : columns_) {
		titles.emplace_back(column.title, Colour::kDim);
	}
	std::string text = line(titles, fits, terminal);
	for (const std::vector<Cell> &row : rows_) {
		text += line(row, fits, terminal);
	}
	return text;
}

} // namespace kaq
