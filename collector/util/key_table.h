/*
 * A table of some short keys, fixed from the start: by far quicker to look into than a map, since
 * length and ends of the key nearly always tell which one it can be. Any thread.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace kaq {

template <typename Value> class KeyTable {
public:
	using Entry = std::pair<std::string_view, Value>;

	/* REQUIRES: at most 63 keys, each once, none empty, which outlive the table. */
	KeyTable(std::initializer_list<Entry> entries) {
		for (const Entry &entry : entries) {
			size_t at = place_of(entry.first);
			while (!places_[at].first.empty()) {
				at = (at + 1) % kPlaces;
			}
			places_[at] = entry;
		}
	}

	/* Nothing if there is no such key. */
	const Value *find(std::string_view key) const {
		if (key.empty()) {
			return nullptr;
		}
		for (size_t at = place_of(key); !places_[at].first.empty(); at = (at + 1) % kPlaces) {
			if (places_[at].first == key) {
				return &places_[at].second;
			}
		}
		return nullptr;
	}

private:
	static constexpr size_t kPlaces = 64;

	static size_t place_of(std::string_view key) {
		auto first = static_cast<unsigned char>(key.front());
		auto last = static_cast<unsigned char>(key.back());
		return (first + last * 9U + key.size() * 5U) % kPlaces;
	}

	std::array<Entry, kPlaces> places_{};
};

} // namespace kaq
