#include "cli/waterfall.h"

#include <algorithm>
#include <cctype>

#include "cli/format.h"

namespace kaq {
namespace {

constexpr int kUsualWidth = 100;
constexpr size_t kTimeColumns = 9;
constexpr size_t kLeastBar = 8;
/* Of the width, in hundredths. */
constexpr size_t kLabelShare = 50;
/* Of the label, in hundredths. */
constexpr size_t kIndentShare = 40;

/* What lines and bars are made of. */
struct Glyphs {
	const char *itself;  /* the call alone holds the request up */
	const char *within;  /* what it calls does, or something beside it */
	const char *instant; /* less than a column */
	const char *branch;
	const char *last;
	const char *pass;
	const char *failure;
	const char *times;
	const char *more;
};

constexpr Glyphs kUnicode = {"\u2588", "\u2591", "\u258f", "\u251c", "\u2514",
							 "\u2502", "\u2717", "\u00d7", "\u2026"};
constexpr Glyphs kAscii = {"#", "-", "|", "|", "`", "|", "!", "x", "..."};

size_t depth_of(const std::vector<CallNode> &nodes) {
	size_t depth = 0;
	for (const CallNode &node : nodes) {
		depth = std::max(depth, 1 + depth_of(node.children));
	}
	return depth;
}

class Painter {
public:
	Painter(const std::vector<CallNode> &trees, const Terminal &terminal, size_t most_rows)
		: terminal_(terminal), glyphs_(terminal.has_unicode ? kUnicode : kAscii),
		  most_rows_(most_rows) {
		auto width = static_cast<size_t>(terminal.width_or(kUsualWidth));
		size_t drawn = width - std::min(width, 2 * (kTimeColumns + 1) + 1);
		bar_ = std::max(kLeastBar, drawn - std::min(drawn, width * kLabelShare / 100));
		label_ = drawn - std::min(drawn, bar_);
		indent_ = depth_of(trees) * 2 <= label_ * kIndentShare / 100 ? 2 : 1;
		for (const CallNode &tree : trees) {
			end_ = std::max(end_, tree.to);
		}
	}

	std::string paint(const std::vector<CallNode> &trees) {
		std::string head = padded("", label_) + right_aligned("total", kTimeColumns + 1) +
						   right_aligned("self", kTimeColumns + 1) + " " + axis();
		text_ = terminal_.paint(head, Colour::kDim) + "\n";
		for (const CallNode &tree : trees) {
			add(tree, "", "");
		}
		if (left_out_ > 0) {
			text_ += terminal_.paint(
						 std::string(glyphs_.more) + " " +
							 count_of(static_cast<int64_t>(left_out_), "more row", "more rows") +
							 ": --all shows them",
						 Colour::kDim) +
					 "\n";
		}
		return text_;
	}

private:
	/* From 0 to the end. */
	std::string axis() const {
		std::string end = duration_text(end_);
		return bar_ > width_of(end) + 1 ? "0" + right_aligned(end, bar_ - 1) : "";
	}

	/* `own` is what stands before the label, `below` what does for its children. */
	void add(const CallNode &node, const std::string &own, const std::string &below) {
		if (rows_ >= most_rows_) {
			left_out_ += count_rows({node});
			return;
		}
		rows_++;
		text_ += line(node, own);
		for (const std::string &failure : node.failures) {
			add_failure(failure, below, !node.children.empty());
		}
		for (size_t i = 0; i < node.children.size(); i++) {
			bool is_last = i + 1 == node.children.size();
			std::string pad(indent_ - 1, ' ');
			std::string here = below;
			here.append(is_last ? glyphs_.last : glyphs_.branch).append(pad);
			std::string beneath = below;
			beneath.append(is_last ? " " : glyphs_.pass).append(pad);
			add(node.children[i], here, beneath);
		}
	}

	void add_failure(const std::string &failure, const std::string &before, bool has_more) {
		if (rows_ >= most_rows_) {
			left_out_++;
			return;
		}
		rows_++;
		std::string guide = indented(before + (has_more ? glyphs_.pass : " ") + " ");
		auto width = static_cast<size_t>(terminal_.width_or(kUsualWidth));
		text_ += terminal_.paint(guide, Colour::kDim);
		text_ += terminal_.paint(std::string(glyphs_.failure) + " " +
									 shortened_to(failure, width - width_of(guide) - 2),
								 Colour::kRed) +
				 "\n";
	}

	/* Of what stands before a label no more than half of its room, the nearest levels. */
	std::string indented(const std::string &before) const {
		size_t width = width_of(before);
		if (width <= label_ / 2) {
			return before;
		}
		size_t excess = width - label_ / 2 + 1;
		size_t at = 0;
		for (size_t i = 0; i < excess && at < before.size(); i++) {
			at++;
			while (at < before.size() && (static_cast<unsigned char>(before[at]) & 0xc0) == 0x80) {
				at++;
			}
		}
		return "~" + before.substr(at);
	}

	std::string line(const CallNode &node, const std::string &before) const {
		std::string guide = indented(before);
		std::string count = count_before(node);
		size_t room = label_ - std::min(label_, width_of(guide) + width_of(count));
		std::string label = node.layer == "database" ? shortened_statement(node.label, room)
													 : shortened_to(node.label, room);
		std::string blanks(room - std::min(room, width_of(label)), ' ');
		std::string own = node.is_summed_up ? "" : duration_text(node.own);
		return terminal_.paint(guide, Colour::kDim) + terminal_.paint(count, Colour::kBold) +
			   terminal_.paint(label, colour_of(node)) + blanks +
			   right_aligned(duration_text(node.total), kTimeColumns + 1) +
			   terminal_.paint(right_aligned(own, kTimeColumns + 1), Colour::kDim) + " " +
			   bar_of(node) + "\n";
	}

	/* "61 x " */
	std::string count_before(const CallNode &node) const {
		if (node.is_summed_up) {
			return std::string(glyphs_.more) + " " + count_text(node.count) + " ";
		}
		return node.count > 1 ? count_text(node.count) + " " + glyphs_.times + " " : "";
	}

	static Colour colour_of(const CallNode &node) {
		if (node.is_failed || !node.failures.empty()) {
			return Colour::kRed;
		}
		if (node.is_summed_up) {
			return Colour::kDim;
		}
		return node.layer == "service" ? Colour::kBold : Colour::kNone;
	}

	size_t column_of(int64_t time) const {
		double share = end_ > 0 ? static_cast<double>(time) / static_cast<double>(end_) : 0;
		return std::min(bar_,
						static_cast<size_t>(std::max(0.0, share) * static_cast<double>(bar_)));
	}

	size_t nearest_column(int64_t time) const {
		return std::min(bar_, column_of(time + end_ / static_cast<int64_t>(2 * bar_)));
	}

	/* Of a column's time, the part that lies between both. */
	double within_column(size_t column, int64_t begin, int64_t end) const {
		double scale = static_cast<double>(bar_) / static_cast<double>(std::max<int64_t>(end_, 1));
		auto left = static_cast<double>(column);
		double first = std::max(left, static_cast<double>(begin) * scale);
		double last = std::min(left + 1, static_cast<double>(end) * scale);
		return std::max(0.0, last - first);
	}

	std::string bar_of(const CallNode &node) const {
		size_t from = std::min(nearest_column(node.from), bar_ - 1);
		size_t to = std::max(nearest_column(node.to), from);
		std::string bar(from, ' ');
		if (to == from) {
			return bar + terminal_.paint(glyphs_.instant, colour_of_layer(node.layer));
		}
		std::vector<double> itself(to - from, 0);
		for (const auto &[begin, end] : node.held_up) {
			for (size_t i = column_of(begin); i <= column_of(end) && i < to; i++) {
				itself[std::max(i, from) - from] += i < from ? 0 : within_column(i, begin, end);
			}
		}
		std::string drawn;
		for (size_t i = from; i < to; i++) {
			bool is_itself = 2 * itself[i - from] >= within_column(i, node.from, node.to);
			drawn += is_itself ? glyphs_.itself : glyphs_.within;
		}
		return bar + terminal_.paint(drawn, colour_of_layer(node.layer));
	}

	const Terminal &terminal_;
	const Glyphs &glyphs_;
	const size_t most_rows_;
	size_t label_ = 0;
	size_t bar_ = 0;
	size_t indent_ = 2;
	int64_t end_ = 0;
	size_t rows_ = 0;
	size_t left_out_ = 0;
	std::string text_;
};

/* The place of a word of small letters, in either case; the end if it is not there. */
size_t find_word(const std::string &statement, std::string_view word) {
	auto found = std::search(statement.begin(), statement.end(), word.begin(), word.end(),
							 [](char one, char other) {
								 return std::tolower(static_cast<unsigned char>(one)) == other;
							 });
	return static_cast<size_t>(found - statement.begin());
}

} // namespace

Colour colour_of_layer(const std::string &layer) {
	if (layer == "database") {
		return Colour::kBlue;
	}
	if (layer == "cache") {
		return Colour::kMagenta;
	}
	if (layer == "http") {
		return Colour::kYellow;
	}
	return layer == "other" ? Colour::kCyan : Colour::kGreen;
}

std::string shortened_statement(const std::string &statement, size_t columns) {
	constexpr std::string_view select = "select ";
	size_t from = find_word(statement, " from ");
	bool has_list =
		find_word(statement, select) == 0 && from > select.size() && from < statement.size();
	if (width_of(statement) <= columns || !has_list) {
		return shortened_to(statement, columns);
	}
	return shortened_to(statement.substr(0, select.size()) + "\u2026" + statement.substr(from),
						columns);
}

std::string waterfall(const std::vector<CallNode> &trees, const Terminal &terminal,
					  size_t most_rows) {
	return Painter(trees, terminal, most_rows).paint(trees);
}

} // namespace kaq
