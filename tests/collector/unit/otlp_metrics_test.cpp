/* How long requests took, as OTLP has it. */
#include "export/otlp_metrics.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "otlp_decoding.h"

namespace {

using namespace kaq;
using namespace kaq_test;

constexpr uint64_t kMillisecond = 1000000;
constexpr int64_t kSince = 1700000000000;
constexpr int64_t kNow = kSince + 60000;

struct Point {
	std::string service;
	std::string metric;
	std::map<std::string, std::string> attributes;
	Message message;
};

double real(uint64_t bits) {
	double value = 0;
	memcpy(&value, &bits, sizeof value);
	return value;
}

/* Of a packed field of fixed64 or double. */
std::vector<uint64_t> packed(const std::string &bytes) {
	std::vector<uint64_t> numbers(bytes.size() / sizeof(uint64_t));
	memcpy(numbers.data(), bytes.data(), bytes.size());
	return numbers;
}

std::vector<Point> points_of(const std::string &request) {
	std::vector<Point> points;
	for (const Message &of_resource : Message(request).messages(1)) {
		auto resource = attributes_of(of_resource.message(1), 1);
		for (const Message &of_scope : of_resource.messages(2)) {
			for (const Message &metric : of_scope.messages(2)) {
				EXPECT_EQ(metric.bytes(3), "s");
				EXPECT_EQ(metric.message(9).number(2), 2u) << "cumulative";
				for (const Message &point : metric.message(9).messages(1)) {
					points.push_back({resource.at("service.name"), metric.bytes(1),
									  attributes_of(point, 9), point});
				}
			}
		}
	}
	return points;
}

Summary summary(const std::string &name, int64_t duration, int64_t status = 200) {
	Summary summary;
	summary.application = "shop";
	summary.name = name;
	summary.method = "GET";
	summary.duration = duration;
	summary.status = status;
	summary.is_web = true;
	summary.is_failed = status >= 500;
	return summary;
}

std::vector<Point> points_of(const RequestMetrics &metrics) {
	OtlpMetricWriter writer(metrics.series(), kSince, kNow, "web1");
	return points_of(writer.write(0, SIZE_MAX).bytes);
}

TEST(OtlpMetrics, ARequestIsInItsHistogram) {
	RequestMetrics metrics;
	for (int64_t duration : {5, 6, 80, 80, 40000}) {
		metrics.add(summary("/cart", duration));
	}
	std::vector<Point> points = points_of(metrics);
	ASSERT_EQ(points.size(), 1u);
	EXPECT_EQ(points[0].service, "shop");
	EXPECT_EQ(points[0].metric, "http.server.request.duration");
	EXPECT_EQ(points[0].attributes,
			  (std::map<std::string, std::string>{{"http.request.method", "GET"},
												  {"http.route", "/cart"},
												  {"http.response.status_code", "200"}}));
	const Message &point = points[0].message;
	EXPECT_EQ(point.number(2), kSince * kMillisecond);
	EXPECT_EQ(point.number(3), kNow * kMillisecond);
	EXPECT_EQ(point.number(4), 5u);
	EXPECT_DOUBLE_EQ(real(point.number(5)), 40.171);
	std::vector<uint64_t> counts = packed(point.bytes(6));
	std::vector<uint64_t> bounds = packed(point.bytes(7));
	ASSERT_EQ(counts.size(), bounds.size() + 1);
	EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), uint64_t{0}), 5u);
	EXPECT_EQ(counts[0], 1u) << "to 5 ms";
	EXPECT_EQ(counts[1], 1u) << "to 10 ms";
	EXPECT_DOUBLE_EQ(real(bounds[0]), 0.005);
	EXPECT_DOUBLE_EQ(real(bounds[5]), 0.1);
	EXPECT_EQ(counts[5], 2u) << "to 100 ms";
	EXPECT_EQ(counts.back(), 1u) << "longer than all";
}

TEST(OtlpMetrics, WhatFailedIsAPointOfItsOwn) {
	RequestMetrics metrics;
	metrics.add(summary("/cart", 5));
	metrics.add(summary("/cart", 5, 503));
	Summary error = summary("/cart", 5);
	error.is_failed = true;
	metrics.add(error);
	std::map<std::string, uint64_t> counts;
	for (const Point &point : points_of(metrics)) {
		auto type = point.attributes.find("error.type");
		counts[type == point.attributes.end() ? "" : type->second] += point.message.number(4);
	}
	EXPECT_EQ(counts, (std::map<std::string, uint64_t>{{"", 1}, {"503", 1}, {"_OTHER", 1}}));
}

TEST(OtlpMetrics, ScriptsHaveAMetricOfTheirOwn) {
	RequestMetrics metrics;
	Summary script = summary("import.php", 7000, 0);
	script.is_web = false;
	script.method.clear();
	metrics.add(script);
	std::vector<Point> points = points_of(metrics);
	ASSERT_EQ(points.size(), 1u);
	EXPECT_EQ(points[0].metric, "kaq.script.duration");
	EXPECT_EQ(points[0].attributes,
			  (std::map<std::string, std::string>{{"kaq.transaction", "import.php"}}));
}

TEST(OtlpMetrics, PartsTogetherAreTheWhole) {
	RequestMetrics metrics;
	for (int i = 0; i < 40; i++) {
		Summary one = summary("/" + std::to_string(i % 10), i);
		one.application = "app" + std::to_string(i / 10);
		one.is_web = i % 3 != 0;
		metrics.add(one);
	}
	OtlpMetricWriter writer(metrics.series(), kSince, kNow, "");
	ASSERT_EQ(writer.items(), 40u);
	std::string bytes;
	for (size_t from = 0; from < writer.items();) {
		OtlpPart part = writer.write(from, 7);
		ASSERT_GE(part.items(), 1u);
		ASSERT_LE(part.items(), 7u);
		bytes += part.bytes;
		from = part.to;
	}
	std::map<std::string, int> services;
	for (const Point &point : points_of(bytes)) {
		services[point.service]++;
	}
	EXPECT_EQ(services,
			  (std::map<std::string, int>{{"app0", 10}, {"app1", 10}, {"app2", 10}, {"app3", 10}}));
}

} // namespace
