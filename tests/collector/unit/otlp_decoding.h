/* Reads what is sent by OTLP, without the library that wrote it. */
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kaq_test {

/* A message of protobuf: its fields by number, as they came. */
class Message {
public:
	explicit Message(std::string_view bytes) {
		while (!bytes.empty()) {
			uint64_t key = varint(bytes);
			auto &values = fields_[static_cast<int>(key >> 3)];
			switch (key & 7) {
			case 0:
				values.push_back({varint(bytes), ""});
				break;
			case 1:
				values.push_back({fixed(bytes, 8), ""});
				break;
			case 2: {
				uint64_t size = varint(bytes);
				values.push_back({0, std::string(take(bytes, size))});
				break;
			}
			case 5:
				values.push_back({fixed(bytes, 4), ""});
				break;
			default:
				throw std::runtime_error("no such wire type");
			}
		}
	}

	bool has(int field) const {
		return fields_.count(field) > 0;
	}
	size_t count(int field) const {
		return has(field) ? fields_.at(field).size() : 0;
	}
	uint64_t number(int field) const {
		return has(field) ? fields_.at(field).back().number : 0;
	}
	std::string bytes(int field) const {
		return has(field) ? fields_.at(field).back().bytes : "";
	}
	Message message(int field) const {
		return Message(bytes(field));
	}
	std::vector<Message> messages(int field) const {
		std::vector<Message> all;
		for (size_t i = 0; i < count(field); i++) {
			all.emplace_back(fields_.at(field)[i].bytes);
		}
		return all;
	}

private:
	struct Value {
		uint64_t number;
		std::string bytes;
	};

	static std::string_view take(std::string_view &bytes, uint64_t size) {
		if (size > bytes.size()) {
			throw std::runtime_error("the message ends too early");
		}
		std::string_view taken = bytes.substr(0, size);
		bytes.remove_prefix(size);
		return taken;
	}
	static uint64_t varint(std::string_view &bytes) {
		uint64_t number = 0;
		for (unsigned shift = 0; shift < 64; shift += 7) {
			auto byte = static_cast<unsigned char>(take(bytes, 1)[0]);
			number |= static_cast<uint64_t>(byte & 0x7f) << shift;
			if (byte < 0x80) {
				return number;
			}
		}
		throw std::runtime_error("a number is too long");
	}
	static uint64_t fixed(std::string_view &bytes, unsigned size) {
		uint64_t number = 0;
		std::string_view taken = take(bytes, size);
		for (unsigned i = 0; i < size; i++) {
			number |= static_cast<uint64_t>(static_cast<unsigned char>(taken[i])) << (8 * i);
		}
		return number;
	}

	std::map<int, std::vector<Value>> fields_;
};

inline std::string hex(const std::string &bytes) {
	std::string text;
	for (unsigned char byte : bytes) {
		text += "0123456789abcdef"[byte >> 4];
		text += "0123456789abcdef"[byte & 15];
	}
	return text;
}

/* Of a repeated KeyValue, each value as text. */
inline std::map<std::string, std::string> attributes_of(const Message &message, int field) {
	std::map<std::string, std::string> all;
	for (const Message &pair : message.messages(field)) {
		Message value = pair.message(2);
		std::string text = value.has(1)   ? value.bytes(1)
						   : value.has(2) ? (value.number(2) ? "true" : "false")
										  : std::to_string(static_cast<int64_t>(value.number(3)));
		if (!all.emplace(pair.bytes(1), text).second) {
			throw std::runtime_error(pair.bytes(1) + " comes twice");
		}
	}
	return all;
}

struct SentEvent {
	std::string name;
	uint64_t time = 0;
	std::map<std::string, std::string> attributes;
};

struct SentSpan {
	std::string trace_id; /* hex */
	std::string id;
	std::string parent;
	std::string name;
	uint64_t kind = 0;
	uint64_t start = 0;
	uint64_t end = 0;
	uint64_t status = 0;
	uint64_t flags = 0;
	std::map<std::string, std::string> attributes;
	std::map<std::string, std::string> resource;
	std::vector<SentEvent> events;
};

/* Of an ExportTraceServiceRequest, in their order. */
inline std::vector<SentSpan> spans_of(std::string_view request) {
	std::vector<SentSpan> spans;
	for (const Message &resource_spans : Message(request).messages(1)) {
		auto resource = attributes_of(resource_spans.message(1), 1);
		for (const Message &scope_spans : resource_spans.messages(2)) {
			for (const Message &span : scope_spans.messages(2)) {
				SentSpan sent;
				sent.trace_id = hex(span.bytes(1));
				sent.id = hex(span.bytes(2));
				sent.parent = hex(span.bytes(4));
				sent.name = span.bytes(5);
				sent.kind = span.number(6);
				sent.start = span.number(7);
				sent.end = span.number(8);
				sent.status = span.message(15).number(3);
				sent.flags = span.number(16);
				sent.attributes = attributes_of(span, 9);
				sent.resource = resource;
				for (const Message &event : span.messages(11)) {
					sent.events.push_back(
						{event.bytes(2), event.number(1), attributes_of(event, 3)});
				}
				spans.push_back(std::move(sent));
			}
		}
	}
	return spans;
}

} // namespace kaq_test
