/*
 * Which names of transactions stand for many pages that a parameter of the query tells apart, as
 * "/index.php" does for "/index.php?module=cart". What is seldom gives way, so that memory is
 * bounded whatever visitors send. Any thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kaq {

struct HiddenPages {
	std::string application;
	std::string transaction;
	std::string path;      /* a pattern, for a rule of [[names.rule]]; without quotes */
	std::string parameter; /* letters, digits, "_", "-", "." and brackets */
	size_t pages = 0;      /* that were asked for again and again; more may be there */
	uint64_t requests = 0;
};

class HiddenPagesFinder {
public:
	static constexpr size_t kMostNames = 200;
	static constexpr size_t kMostParameters = 8; /* of a name */
	static constexpr size_t kMostPages = 64;     /* of a parameter */
	static constexpr size_t kFewestPages = 8;    /* that are many */
	static constexpr uint64_t kFewestRequests = 50;

	/* A request that was recorded, with the name that it was given. */
	void note(std::string_view application, std::string_view transaction, std::string_view path,
			  std::string_view query);
	/* The names with the most requests first. */
	std::vector<HiddenPages> found() const;

private:
	struct Page {
		uint64_t key = 0; /* a hash */
		uint64_t requests = 0;
	};
	struct Parameter {
		uint64_t key = 0;
		uint64_t requests = 0;
		std::string name;
		std::vector<Page> pages;
	};
	struct Name {
		uint64_t key = 0;
		uint64_t requests = 0;
		std::string application;
		std::string transaction;
		std::string path;
		std::vector<Parameter> parameters;
	};

	static size_t pages_of(const Name &name, const Parameter &parameter);

	mutable std::mutex mutex_;
	std::vector<Name> names_;
};

} // namespace kaq
