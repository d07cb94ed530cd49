/*
 * Configuration files: whatever stands in one, it is read or its mistakes are told, and what has
 * been read is shown as a file that reads back as the same.
 */
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cli/configuration.h"

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static tl::expected<std::string, std::string> file(const std::string &path) {
	if (path.size() % 2 == 0) {
		return tl::make_unexpected("cannot read " + path);
	}
	return path;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	std::string_view text(reinterpret_cast<const char *>(data), size);
	kaq::ConfigurationOrMistakes configuration = kaq::read_configuration(text, file);
	if (!configuration) {
		require(!configuration.error().empty());
		require(!kaq::mistakes_text("file", configuration.error()).empty());
		return 0;
	}
	std::string shown = to_toml(*configuration);
	kaq::ConfigurationOrMistakes again = kaq::read_configuration(shown, file);
	/* A line of what is shown may be longer than a file's may be. */
	require(again ? to_toml(*again) == shown : shown.size() > 4096);
	return 0;
}
