/* Documents in less room (zstd). A Compressor is used by one thread at a time. */
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kaq {

class Compressor {
public:
	Compressor();
	~Compressor();
	Compressor(const Compressor &) = delete;
	Compressor &operator=(const Compressor &) = delete;

	std::string compress(std::string_view text);

private:
	struct Context;
	std::unique_ptr<Context> context_;
};

/* Nothing if the bytes are damaged, or stand for more than `most` bytes. Any thread. */
std::optional<std::string> decompress(std::string_view bytes, size_t most);

} // namespace kaq
