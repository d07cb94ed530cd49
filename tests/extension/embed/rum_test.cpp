/* The output handler of the browser snippet, called by hand. */
#include "engine.h"

#include <string.h>

#include "diagnostics/kaq_rum.h"

#define SNIPPET "<s/>"

class RumHandler : public MonitoredTest {
protected:
	void SetUp() override {
		MonitoredTest::SetUp();
		g->rum_snippet = strdup(SNIPPET);
		tell("Content-type: text/html");
	}

	void TearDown() override {
		zend_llist_clean(&SG(sapi_headers).headers);
		MonitoredTest::TearDown();
	}

	/* Adds a line to the header list exactly as it is. */
	void tell(const char *text) {
		sapi_header_struct line;
		line.header = estrdup(text);
		line.header_len = strlen(text);
		zend_llist_add_element(&SG(sapi_headers).headers, &line);
	}

	void tell_only(const char *text) {
		zend_llist_clean(&SG(sapi_headers).headers);
		tell(text);
	}

	/* What the handler makes of a chunk; "(as it is)" when it passes. */
	std::string of(std::string chunk, int mode = PHP_OUTPUT_HANDLER_WRITE) {
		char *output = nothing;
		size_t length = 99;
		kaq_rum_injection_handler(&chunk[0], chunk.size(), &output, &length, mode);
		if (!output) {
			EXPECT_EQ(0u, length);
			return "(as it is)";
		}
		EXPECT_EQ('\0', output[length]);
		std::string made(output, length);
		efree(output);
		return made;
	}

	/* Whether the handler leaves even its results alone. */
	bool does_nothing(char *chunk, size_t length) {
		char *output = nothing;
		size_t new_length = 99;
		kaq_rum_injection_handler(chunk, length, &output, &new_length, PHP_OUTPUT_HANDLER_WRITE);
		return output == nothing && new_length == 99;
	}

private:
	char nothing[1];
};

TEST_F(RumHandler, PutsTheSnippetBeforeTheTag) {
	EXPECT_EQ("a" SNIPPET "</head>b</head>", of("a</head>b</head>"));
	EXPECT_EQ(1, g->rum_injected);
}

TEST_F(RumHandler, KeepsZeroBytes) {
	EXPECT_EQ(std::string("\0" SNIPPET "</hEAD>\0", 13), of(std::string("\0</hEAD>\0", 9)));
}

TEST_F(RumHandler, LeavesResultsAloneWithoutOutputOrSnippet) {
	char chunk[] = "</head>";
	EXPECT_TRUE(does_nothing(nullptr, 7));
	free(g->rum_snippet);
	g->rum_snippet = nullptr;
	EXPECT_TRUE(does_nothing(chunk, 7));
	EXPECT_EQ(0, g->rum_injected);
}

TEST_F(RumHandler, PassesAnEmptyChunkOrSnippet) {
	EXPECT_EQ("(as it is)", of(""));
	g->rum_snippet[0] = '\0';
	EXPECT_EQ("(as it is)", of("</head>"));
	EXPECT_EQ(0, g->rum_injected);
}

TEST_F(RumHandler, PassesWhatIsCleanedWhateverElseTheModeSays) {
	for (int mode : {PHP_OUTPUT_HANDLER_CLEAN, PHP_OUTPUT_HANDLER_START | PHP_OUTPUT_HANDLER_CLEAN,
					 PHP_OUTPUT_HANDLER_CLEAN | PHP_OUTPUT_HANDLER_FINAL}) {
		EXPECT_EQ("(as it is)", of("</head>", mode)) << mode;
		EXPECT_EQ(0, g->rum_injected);
	}
	for (int mode :
		 {PHP_OUTPUT_HANDLER_START, PHP_OUTPUT_HANDLER_FLUSH, PHP_OUTPUT_HANDLER_FINAL}) {
		g->rum_injected = 0;
		EXPECT_EQ(SNIPPET "</head>", of("</head>", mode)) << mode;
	}
}

TEST_F(RumHandler, PassesAllOnceItIsPlaced) {
	g->rum_injected = 1;
	EXPECT_EQ("(as it is)", of("</head>"));
}

TEST_F(RumHandler, ReadsNothingBeyondTheChunk) {
	char text[] = "x</head>";
	char *output = nullptr;
	size_t length = 0;
	kaq_rum_injection_handler(text, 7, &output, &length, PHP_OUTPUT_HANDLER_WRITE);
	EXPECT_EQ(nullptr, output);
	EXPECT_EQ(0, g->rum_injected);
}

TEST_F(RumHandler, LineThatIsNoMoreThanItsNameDoesNotCount) {
	tell("Content-Length:");
	EXPECT_EQ(SNIPPET "</head>", of("</head>"));
}

TEST_F(RumHandler, LineWithOneCharacterMoreCounts) {
	tell("Content-Length: ");
	EXPECT_EQ("(as it is)", of("</head>"));
}

TEST_F(RumHandler, TypeCountsInAnyCaseOfItsNameAndOneOfItsValue) {
	tell_only("CONTENT-TYPE:text/html");
	EXPECT_EQ(SNIPPET "</head>", of("</head>"));
	g->rum_injected = 0;
	tell_only("Content-Type: text/HTML");
	EXPECT_EQ("(as it is)", of("</head>"));
	tell_only("X-Content-Type: text/html");
	EXPECT_EQ("(as it is)", of("</head>"));
	tell_only("Content-Type; text/html");
	EXPECT_EQ("(as it is)", of("</head>"));
}

TEST_F(RumHandler, LineThatOnlyBeginsLikeAnEncodingDoesNotCount) {
	for (const char *line : {"Content-Encoding:", "Content-Encodings: gzip"}) {
		tell(line);
		EXPECT_EQ(SNIPPET "</head>", of("</head>")) << line;
		g->rum_injected = 0;
		g->rum_page = 0;
	}
}

TEST_F(RumHandler, EncodingCountsInAnyCaseAndBeforeAnyOtherLine) {
	tell("CONTENT-ENCODING:b");
	tell("X-Other: 1");
	EXPECT_EQ("(as it is)", of("</head>"));
}

TEST_F(RumHandler, FirstChunkThatIsOneTellsWhetherThePageIsEncoded) {
	tell_only("Content-Type: text/plain");
	EXPECT_EQ("(as it is)", of("first"));
	tell_only("Content-Type: text/html");
	tell("Content-Encoding: br");
	EXPECT_EQ(SNIPPET "</head>", of("</head>"));
}

TEST_F(RumHandler, ChunkThatIsEmptyCleanedOrCompressedTellsNothing) {
	EXPECT_EQ("(as it is)", of(""));
	EXPECT_EQ("(as it is)", of("gone", PHP_OUTPUT_HANDLER_CLEAN));
	EXPECT_EQ("(as it is)", of("\x1f\x8b</head>"));
	tell("Content-Encoding: br");
	EXPECT_EQ("(as it is)", of("</head>"));
}
