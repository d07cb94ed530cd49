#include "util/base64.h"

#include <array>
#include <cstdint>

namespace kaq {
namespace {

constexpr uint32_t kInvalid = 0x80000000;

/* What each character adds to a group of four, at each of its four places. */
struct Tables {
	std::array<std::array<uint32_t, 256>, 4> at;
};

constexpr Tables make_tables() {
	constexpr std::string_view alphabet =
		"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
	Tables tables{};
	for (unsigned place = 0; place < 4; place++) {
		for (uint32_t &entry : tables.at[place]) {
			entry = kInvalid;
		}
		for (uint32_t value = 0; value < 64; value++) {
			tables.at[place][static_cast<uint8_t>(alphabet[value])] = value << (18 - 6 * place);
		}
	}
	return tables;
}

constexpr Tables kTables = make_tables();

uint32_t group(const unsigned char *in) {
	return kTables.at[0][in[0]] | kTables.at[1][in[1]] | kTables.at[2][in[2]] |
		   kTables.at[3][in[3]];
}

void put(char *out, uint32_t bits) {
	out[0] = static_cast<char>(bits >> 16);
	out[1] = static_cast<char>(bits >> 8);
	out[2] = static_cast<char>(bits);
}

size_t padding_of(std::string_view text) {
	if (text.empty() || text.back() != '=') {
		return 0;
	}
	return text[text.size() - 2] == '=' ? 2 : 1;
}

} // namespace

std::optional<std::string> decode_base64(std::string_view text) {
	if (text.size() % 4 != 0) {
		return std::nullopt;
	}
	size_t padding = padding_of(text);
	size_t whole = text.size() / 4 - (padding ? 1 : 0);
	std::string bytes;
	bytes.reserve(text.size() / 4 * 3 + kRoomBehind);
	bytes.resize(text.size() / 4 * 3);
	const unsigned char *in = reinterpret_cast<const unsigned char *>(text.data());
	char *out = bytes.data();
	uint32_t seen = 0;
	for (size_t i = 0; i < whole; i++, in += 4, out += 3) {
		uint32_t bits = group(in);
		seen |= bits;
		put(out, bits);
	}
	if (padding) {
		unsigned char last[4] = {in[0], in[1],
								 padding == 2 ? static_cast<unsigned char>('A') : in[2], 'A'};
		uint32_t bits = group(last);
		seen |= bits;
		put(out, bits);
	}
	if (seen & kInvalid) {
		return std::nullopt;
	}
	bytes.resize(bytes.size() - padding);
	return bytes;
}

} // namespace kaq
