#include "cli/format.h"

#include <gtest/gtest.h>

#include "cli/table.h"

namespace {

using namespace kaq;

TEST(Format, WritesDurationsWithTheirUnit) {
	EXPECT_EQ(duration_text(0), "0 ms");
	EXPECT_EQ(duration_text(999), "999 ms");
	EXPECT_EQ(duration_text(1250), "1.25 s");
	EXPECT_EQ(duration_text(59999), "59.99 s");
	EXPECT_EQ(duration_text(60000), "1 m 00 s");
	EXPECT_EQ(duration_text(2 * 3600000 + 5 * 60000), "2 h 05 m");
}

TEST(Format, GroupsDigits) {
	EXPECT_EQ(count_text(7), "7");
	EXPECT_EQ(count_text(999), "999");
	EXPECT_EQ(count_text(1000), "1 000");
	EXPECT_EQ(count_text(-1234567), "-1 234 567");
	EXPECT_EQ(count_of(1, "call", "calls"), "1 call");
	EXPECT_EQ(count_of(61, "call", "calls"), "61 calls");
}

TEST(Format, WritesBytesAndShares) {
	EXPECT_EQ(bytes_text(512), "512 B");
	EXPECT_EQ(bytes_text(1536), "1.5 KiB");
	EXPECT_EQ(bytes_text(3LL << 30), "3.0 GiB");
	EXPECT_EQ(share_text(77, 100), "77 %");
	EXPECT_EQ(share_text(1, 1000), "<1 %");
	EXPECT_EQ(share_text(0, 10), "0 %");
	EXPECT_EQ(share_text(1, 0), "-");
}

TEST(Format, ShowsNothingThatATerminalObeys) {
	EXPECT_EQ(printable("a\x1b[31mb\x7f"), "a?[31mb?");
	EXPECT_EQ(printable("a\n\tb"), "a  b");
	EXPECT_EQ(printable("\xc2\x9b"
						"1m"),
			  "?1m");
	EXPECT_EQ(printable("\u202egpj.exe"), "?gpj.exe");
	EXPECT_EQ(printable("\u2066\u200b\ufeff"), "???");
	EXPECT_EQ(printable("caf\u00e9 \u65e5"), "caf\u00e9 \u65e5");
	EXPECT_EQ(printable("\xff"), "\ufffd");
}

TEST(Format, CountsColumns) {
	EXPECT_EQ(width_of("abc"), 3u);
	EXPECT_EQ(width_of("\u65e5\u672c"), 4u);
	EXPECT_EQ(width_of("e\u0301"), 1u);
}

TEST(Format, CutsToColumns) {
	EXPECT_EQ(shortened_to("abcdef", 6), "abcdef");
	EXPECT_EQ(shortened_to("abcdef", 4), "abc\u2026");
	EXPECT_EQ(shortened_to("\u65e5\u672c\u8a9e", 4), "\u65e5\u2026");
	EXPECT_EQ(shortened_to("abc", 0), "");
	EXPECT_EQ(shortened_within("abcdefgh", 5), "ab\u2026gh");
	for (size_t columns = 0; columns < 12; columns++) {
		EXPECT_LE(width_of(shortened_to("a\u65e5b\u672cc\u8a9ed", columns)), columns);
		EXPECT_LE(width_of(shortened_within("a\u65e5b\u672cc\u8a9ed", columns)), columns);
	}
}

TEST(Format, WrapsAtBlanks) {
	EXPECT_EQ(wrapped("one two three", 20), "one two three");
	EXPECT_EQ(wrapped("one two three", 8), "one two\n  three");
	EXPECT_EQ(wrapped("onetwothree four", 5), "onetwothree\n  four");
	EXPECT_EQ(wrapped("", 5), "");
}

Table table_of_two() {
	Table table({{"id"}, {"name", Align::kLeft, 4}, {"calls", Align::kRight}});
	table.add({"a1", "a long name indeed", "7"});
	table.add({{"a2", Colour::kRed}, "x\x1b[1m", "1 000"});
	return table;
}

TEST(Tables, AlignTheirCells) {
	EXPECT_EQ(table_of_two().text({}), "id  name                calls\n"
									   "a1  a long name indeed      7\n"
									   "a2  x?[1m               1 000\n");
}

TEST(Tables, CutWhatMayBeCutToFit) {
	Terminal narrow;
	narrow.width = 20;
	EXPECT_EQ(table_of_two().text(narrow), "id  name       calls\n"
										   "a1  a long n\u2026      7\n"
										   "a2  x?[1m      1 000\n");
}

TEST(Tables, LeaveOptionalColumnsOutTheLastFirst) {
	Table table({{"id"}, {"one", Align::kLeft, 0, true}, {"two", Align::kLeft, 0, true}});
	table.add({"a1", "12345", "12345"});
	Terminal terminal;
	terminal.width = 16;
	EXPECT_EQ(table.text(terminal), "id  one    two\na1  12345  12345\n");
	terminal.width = 15;
	EXPECT_EQ(table.text(terminal), "id  one\na1  12345\n");
	terminal.width = 8;
	EXPECT_EQ(table.text(terminal), "id\na1\n");
}

TEST(Tables, HaveColoursOnlyWhereTheTerminalHas) {
	Terminal terminal;
	EXPECT_EQ(table_of_two().text(terminal).find('\x1b'), std::string::npos);
	terminal.has_colours = true;
	EXPECT_NE(table_of_two().text(terminal).find("\x1b[31ma2\x1b[0m"), std::string::npos);
}

} // namespace
