#include "util/compression.h"

#include <zstd.h>

#include <new>

namespace kaq {
namespace {

/* Payloads come by the thousand; what a higher level saves is not worth its time. */
constexpr int kLevel = 1;

} // namespace

struct Compressor::Context {
	ZSTD_CCtx *zstd = ZSTD_createCCtx();
	~Context() {
		ZSTD_freeCCtx(zstd);
	}
};

Compressor::Compressor() : context_(std::make_unique<Context>()) {
	if (!context_->zstd) {
		throw std::bad_alloc();
	}
}

Compressor::~Compressor() = default;

std::string Compressor::compress(std::string_view text) {
	std::string bytes(ZSTD_compressBound(text.size()), '\0');
	size_t size = ZSTD_compressCCtx(context_->zstd, bytes.data(), bytes.size(), text.data(),
									text.size(), kLevel);
	if (ZSTD_isError(size)) {
		throw std::bad_alloc(); /* nothing else can go wrong with that much room */
	}
	bytes.resize(size);
	bytes.shrink_to_fit();
	return bytes;
}

std::optional<std::string> decompress(std::string_view bytes, size_t most) {
	unsigned long long size = ZSTD_getFrameContentSize(bytes.data(), bytes.size());
	if (size == ZSTD_CONTENTSIZE_UNKNOWN || size == ZSTD_CONTENTSIZE_ERROR || size > most) {
		return std::nullopt;
	}
	std::string text(size, '\0');
	size_t found = ZSTD_decompress(text.data(), text.size(), bytes.data(), bytes.size());
	if (ZSTD_isError(found) || found != size) {
		return std::nullopt;
	}
	return text;
}

} // namespace kaq
