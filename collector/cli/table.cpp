#include "cli/table.h"

#include <algorithm>
#include <numeric>

#include "cli/format.h"

namespace kaq {
namespace {

constexpr size_t kGap = 2;

std::string fitted(const Column &column, const std::string &text, size_t width, bool is_last) {
	std::string shown = shortened_to(text, width);
	if (column.align == Align::kRight) {
		return right_aligned(std::move(shown), width);
	}
	return is_last ? shown : padded(std::move(shown), width);
}

} // namespace

void Table::add(std::vector<Cell> cells) {
	for (Cell &cell : cells) {
		cell.text = printable(cell.text);
	}
	rows_.push_back(std::move(cells));
}

/* What is too wide is taken from the widest of those that may be cut. */
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
	size_t total =
		std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1), std::plus<>());
	while (wanted > 0 && total > wanted) {
		size_t widest = widths.size();
		for (size_t i = 0; i < widths.size(); i++) {
			bool may_be_cut = columns_[i].least > 0 && widths[i] > columns_[i].least;
			if (may_be_cut && (widest == widths.size() || widths[i] > widths[widest])) {
				widest = i;
			}
		}
		if (widest == widths.size()) {
			break;
		}
		widths[widest]--;
		total--;
	}
	return widths;
}

std::string Table::text(const Terminal &terminal) const {
	const std::vector<size_t> fits = widths(terminal);
	std::string text;
	std::string line;
	for (size_t i = 0; i < columns_.size(); i++) {
		bool is_last = i + 1 == columns_.size();
		line += fitted(columns_[i], columns_[i].title, fits[i], is_last);
		line += is_last ? "" : std::string(kGap, ' ');
	}
	text += terminal.paint(line, Colour::kDim) + "\n";
	for (const std::vector<Cell> &row : rows_) {
		for (size_t i = 0; i < columns_.size(); i++) {
			bool is_last = i + 1 == columns_.size();
			text +=
				terminal.paint(fitted(columns_[i], row[i].text, fits[i], is_last), row[i].colour);
			text += is_last ? "\n" : std::string(kGap, ' ');
		}
	}
	return text;
}

} // namespace kaq
