/* Rows of aligned cells that fit a terminal. One thread. */
#pragma once

#include <string>
#include <vector>

#include "cli/terminal.h"

namespace kaq {

enum class Align { kLeft, kRight };

struct Column {
	std::string title;
	Align align = Align::kLeft;
	/* Is cut where the table is too wide, to no less than that; 0: never. */
	size_t least = 0;
	/* Is left out, the last one first, where cutting is not enough. */
	bool is_optional = false;
};

struct Cell {
	Cell(std::string cell_text, Colour cell_colour = Colour::kNone)
		: text(std::move(cell_text)), colour(cell_colour) {
	}
	Cell(const char *cell_text) : text(cell_text) {
	}

	std::string text; /* whatever it holds, only what is printable is shown */
	Colour colour = Colour::kNone;
};

class Table {
public:
	explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {
	}

	/* REQUIRES: as many cells as there are columns. */
	void add(std::vector<Cell> cells);
	bool is_empty() const {
		return rows_.empty();
	}
	/* The titles and the rows, a line each. */
	std::string text(const Terminal &terminal) const;

private:
	/* Of each column; 0 for one that is left out. */
	std::vector<size_t> widths(const Terminal &terminal) const;

	std::string line(const std::vector<Cell> &cells, const std::vector<size_t> &widths,
					 const Terminal &terminal) const;

	std::vector<Column> columns_;
	std::vector<std::vector<Cell>> rows_;
};

} // namespace kaq
