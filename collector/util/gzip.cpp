#include "util/gzip.h"

#include <zlib.h>

#include <new>

namespace kaq {
namespace {

/* What a higher level saves is not worth its time. */
constexpr int kLevel = 1;
constexpr int kWindowBitsOfGzip = 15 + 16;
constexpr int kMemoryLevel = 8;

} // namespace

std::string gzip(std::string_view bytes) {
	z_stream stream = {};
	if (deflateInit2(&stream, kLevel, Z_DEFLATED, kWindowBitsOfGzip, kMemoryLevel,
					 Z_DEFAULT_STRATEGY) != Z_OK) {
		throw std::bad_alloc();
	}
	std::string packed(deflateBound(&stream, bytes.size()), '\0');
	stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
	stream.avail_in = static_cast<uInt>(bytes.size());
	stream.next_out = reinterpret_cast<Bytef *>(packed.data());
	stream.avail_out = static_cast<uInt>(packed.size());
	int result = deflate(&stream, Z_FINISH);
	packed.resize(stream.total_out);
	deflateEnd(&stream);
	if (result != Z_STREAM_END) {
		throw std::bad_alloc(); /* nothing else can go wrong with that much room */
	}
	return packed;
}

} // namespace kaq
