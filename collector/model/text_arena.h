/*
 * The texts of one document, in few blocks of memory. A text stays where it is, and valid, until
 * the arena is destroyed; moving the arena does not move them.
 */
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace kaq {

class TextArena {
public:
	/* A copy of the text. */
	std::string_view keep(std::string_view text) {
		if (text.empty()) {
			return {};
		}
		char *room = take(text.size());
		std::memcpy(room, text.data(), text.size());
		return {room, text.size()};
	}

	/* Makes room for about that many bytes at once. */
	void expect(size_t bytes) {
		if (bytes > left_) {
			add_block(bytes);
		}
	}

	size_t bytes() const {
		return bytes_;
	}

private:
	static constexpr size_t kBlock = 4096;

	char *take(size_t size) {
		if (size > left_) {
			add_block(size > kBlock ? size : kBlock);
		}
		char *room = next_;
		next_ += size;
		left_ -= size;
		return room;
	}

	void add_block(size_t size) {
		blocks_.push_back(std::unique_ptr<char[]>(new char[size]));
		next_ = blocks_.back().get();
		left_ = size;
		bytes_ += size;
	}

	std::vector<std::unique_ptr<char[]>> blocks_;
	char *next_ = nullptr;
	size_t left_ = 0;
	size_t bytes_ = 0;
};

} // namespace kaq
