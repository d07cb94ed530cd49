#include "util/compression.h"

#include <zstd.h>

#include <new>
#include <vector>

namespace kaq {
namespace {

/* Payloads come by the thousand; what a higher level saves is not worth its time. */
constexpr int kLevel = 1;
/* Between two texts. */
constexpr size_t kMostRoomKept = size_t{1} << 20;

} // namespace

struct Compressor::Context {
	ZSTD_CCtx *zstd = ZSTD_createCCtx();
	std::vector<char> room;
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
	std::vector<char> &room = context_->room;
	size_t most = ZSTD_compressBound(text.size());
	if (room.size() < most) {
		room.resize(most);
	}
	size_t size = ZSTD_compressCCtx(context_->zstd, room.data(), room.size(), text.data(),
									text.size(), kLevel);
	if (ZSTD_isError(size)) {
		throw std::bad_alloc(); /* nothing else can go wrong with that much room */
	}
	std::string bytes(room.data(), size);
	if (room.size() > kMostRoomKept) {
		room = {};
	}
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
