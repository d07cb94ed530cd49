/* Records as stores take them, and a directory of their own for each test. */
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "store/filter.h"
#include "store/record.h"

namespace kaq_test {

class Directory {
public:
	Directory() {
		std::string name = (std::filesystem::temp_directory_path() / "kaq-store-XXXXXX").string();
		path_ = mkdtemp(name.data());
	}
	~Directory() {
		std::error_code error;
		std::filesystem::permissions(path_, std::filesystem::perms::owner_all, error);
		std::filesystem::remove_all(path_, error);
	}
	const std::string &path() const {
		return path_;
	}

private:
	std::string path_;
};

inline std::string id_of(int64_t number) {
	char id[17];
	snprintf(id, sizeof(id), "%016llx",
			 static_cast<unsigned long long>(number) * 0x9e3779b97f4a7c15);
	return id;
}

/* A request of /cart of the shop, of 100 ms, that began at that time. */
inline kaq::Record record(int64_t number, int64_t start) {
	kaq::Record record;
	record.summary.id = id_of(number);
	record.summary.trace_id = id_of(number) + id_of(-number);
	record.summary.application = "shop";
	record.summary.name = "/cart";
	record.summary.path = "/cart";
	record.summary.method = "GET";
	record.summary.start = start;
	record.summary.duration = 100;
	record.summary.status = 200;
	record.summary.is_web = true;
	record.host = "shop.example";
	record.instance = "i1";
	return record;
}

/* A record as a condition looks at it. */
class RecordView : public kaq::RequestView {
public:
	explicit RecordView(const kaq::Record &record) : record_(record) {
	}

	int64_t start() const override {
		return record_.summary.start;
	}
	int64_t number(kaq::NumberField field) const override {
		const kaq::Summary &summary = record_.summary;
		switch (field) {
		case kaq::NumberField::kStatus:
			return summary.status;
		case kaq::NumberField::kDuration:
			return summary.duration;
		case kaq::NumberField::kCpu:
			return summary.cpu;
		case kaq::NumberField::kMemory:
			return summary.memory;
		case kaq::NumberField::kQueries:
			return summary.queries;
		case kaq::NumberField::kCalls:
			return summary.calls;
		case kaq::NumberField::kSpans:
			return summary.spans;
		case kaq::NumberField::kErrors:
			return summary.failures;
		case kaq::NumberField::kDatabaseTime:
			return summary.query_time;
		case kaq::NumberField::kExternalTime:
			return summary.external_time;
		}
		return 0;
	}
	bool has(kaq::Flag flag) const override {
		return flag == kaq::Flag::kFailed ? record_.summary.is_failed
										  : record_.summary.is_web == (flag == kaq::Flag::kWeb);
	}
	bool has_text(kaq::TextField field, const TextTest &test) const override {
		const kaq::Summary &summary = record_.summary;
		switch (field) {
		case kaq::TextField::kApplication:
			return test(summary.application);
		case kaq::TextField::kName:
			return test(summary.name);
		case kaq::TextField::kPath:
			return test(summary.path);
		case kaq::TextField::kHost:
			return test(record_.host);
		case kaq::TextField::kMethod:
			return test(summary.method);
		case kaq::TextField::kTraceId:
			return test(summary.trace_id);
		case kaq::TextField::kId:
			return test(summary.id);
		case kaq::TextField::kVerdict:
			for (const std::string &kind : record_.verdict.kinds) {
				if (test(kind)) {
					return true;
				}
			}
			return false;
		case kaq::TextField::kCall:
			return has_text(kaq::TextKind::kCallHost, test);
		}
		return false;
	}
	bool has_text(kaq::WordField field, const TextTest &test) const override {
		auto kind = field == kaq::WordField::kStatement  ? kaq::TextKind::kStatement
					: field == kaq::WordField::kFunction ? kaq::TextKind::kFunction
														 : kaq::TextKind::kFailure;
		return has_text(kind, test);
	}

private:
	bool has_text(kaq::TextKind kind, const TextTest &test) const {
		for (const kaq::RequestText &text : record_.texts) {
			if (text.kind == kind && test(text.text)) {
				return true;
			}
		}
		return false;
	}

	const kaq::Record &record_;
};

} // namespace kaq_test
