/* What packages say about the program: made from the verbs alone. */
#include "cli/manual.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include "cli/command_line.h"

namespace kaq {
namespace {

constexpr const char *kVersion = "1.2";
constexpr const char *kDate = "2026-11-22";

/* A program with each kind of option. */
class Manual : public testing::Test {
protected:
	Manual() : program_("Does things.", "tool") {
		CLI::App &look = *program_.add_subcommand("look", "look at it");
		look.add_option("place", place_, ".where\\to 'look'")->required();
		look.add_option("-n,--count", count_, "at most N")->type_name("N");
		look.add_option("--in", place_, "there")->type_name("DIR");
		look.add_option("--with", place_, "settings")->type_name("FILE");
		look.add_flag("--all", is_all_, "everything");
		look.add_flag("--secret", is_all_, "for tests")->group("");
		CLI::App &ask = *program_.add_subcommand("ask", "ask for it");
		ask.add_subcommand("twice", "ask once more")->add_flag("--loud", is_all_, "loudly");
	}

	std::string page(const std::string &name) {
		return man_pages(program_, {kVersion, kDate}).at(name);
	}

	CLI::App program_;
	std::string place_;
	int count_ = 0;
	bool is_all_ = false;
};

bool has(const std::string &text, const std::string &part) {
	return text.find(part) != std::string::npos;
}

TEST_F(Manual, has_a_page_for_the_program_and_for_each_verb) {
	auto pages = man_pages(program_, {kVersion, kDate});
	ASSERT_EQ(3U, pages.size());
	EXPECT_EQ(0U, pages["tool.1"].find(".TH \"TOOL\" 1 \"2026-11-22\" \"kaq 1.2\""));
	EXPECT_TRUE(has(pages["tool.1"], "tool \\- does things\n"));
	EXPECT_TRUE(has(pages["tool.1"], "\\fBask\\fR\nask for it\n"));
	EXPECT_TRUE(has(pages["tool.1"], ".BR tool\\-look (1)"));
}

TEST_F(Manual, names_options_with_what_they_want) {
	std::string text = page("tool-look.1");
	EXPECT_TRUE(has(text, "\\fBtool look\\fR [\\fIOPTION\\fR]... \\fIPLACE\\fR\n"));
	EXPECT_TRUE(has(text, "\\fB\\-n\\fR, \\fB\\-\\-count\\fR \\fIN\\fR\nat most N\n"));
	EXPECT_TRUE(has(text, "\\fB\\-\\-all\\fR\neverything\n"));
}

TEST_F(Manual, leaves_hidden_options_out) {
	EXPECT_FALSE(has(page("tool-look.1"), "secret"));
	EXPECT_FALSE(has(bash_completion(program_), "secret"));
}

TEST_F(Manual, has_no_commands_in_texts) {
	EXPECT_TRUE(has(page("tool-look.1"), "\n\\&.where\\eto \\(aqlook\\(aq\n"));
}

TEST_F(Manual, tells_the_verbs_of_verbs_on_their_page) {
	std::string text = page("tool-ask.1");
	EXPECT_TRUE(has(text, ".SH \"TOOL ASK TWICE\"\nask once more\n"));
	EXPECT_TRUE(has(text, "\\fB\\-\\-loud\\fR\nloudly\n"));
}

TEST_F(Manual, completes_verbs_options_and_files) {
	std::string text = bash_completion(program_);
	EXPECT_TRUE(has(text, "'tool look' | 'tool ask' | 'tool ask twice'"));
	EXPECT_TRUE(has(text, "\t'tool')\n\t\t_kaq_offer -W 'look ask -h --help'\n"));
	EXPECT_TRUE(has(text, "\t\t--in)\n\t\t\t_kaq_offer -d\n"));
	EXPECT_TRUE(has(text, "\t\t--with)\n\t\t\t_kaq_offer -f\n"));
	EXPECT_TRUE(has(text, "\t\t-n | --count)\n\t\t\t:\n"));
	EXPECT_TRUE(has(text, "_kaq_offer -W '-h --help --loud'\n"));
}

TEST(ManualOfTheProgram, has_every_verb) {
	int status = kDone;
	std::unique_ptr<CLI::App> program = make_command_line(status);
	EXPECT_EQ(verbs().size() + 1, man_pages(*program, {kVersion, kDate}).size());
}

} // namespace
} // namespace kaq
