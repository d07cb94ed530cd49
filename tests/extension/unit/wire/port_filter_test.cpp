#include "wire/port_filter.h"

#include <string.h>
#include <string>

#include <gtest/gtest.h>

static std::string chosen(const char *static_port, const char *forwarded, const char *server) {
	char port[KAQ_PORT_TEXT_SIZE];
	memset(port, 'x', sizeof port);
	kaq_choose_port_text(port, static_port, forwarded, server);
	EXPECT_LT(strnlen(port, sizeof port), sizeof port);
	return port;
}

TEST(PortFilter, NothingSetPasses) {
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter(nullptr, nullptr, "80"));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("", "", "80"));
}

TEST(PortFilter, IncludedPortPasses) {
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("80", nullptr, "80"));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("80,443", nullptr, "80"));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("80,443", nullptr, "443"));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("80,443,8080", nullptr, "443"));
}

TEST(PortFilter, PortOutsideTheIncludeListIsNotIncluded) {
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("80,443", nullptr, "8080"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("80,443", nullptr, "0"));
}

TEST(PortFilter, ExcludedPortIsExcluded) {
	EXPECT_EQ(KAQ_PORT_EXCLUDED, kaq_port_filter(nullptr, "80,443", "443"));
	EXPECT_EQ(KAQ_PORT_EXCLUDED, kaq_port_filter("", "80,443", "80"));
}

TEST(PortFilter, PortOutsideTheExcludeListPasses) {
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter(nullptr, "80,443", "8080"));
}

TEST(PortFilter, IncludeListAloneDecidesWhenBothAreSet) {
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("80", "80", "80"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("80", "443", "443"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("80", "443", "8080"));
}

TEST(PortFilter, BlanksAreNotTrimmedIsMeant) {
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("80, 443", nullptr, "443"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("443 ,80", nullptr, "443"));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter(nullptr, " 443", "443"));
}

TEST(PortFilter, NumbersAreNotComparedIsMeant) {
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("0443", nullptr, "443"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("443", nullptr, "0443"));
}

TEST(PortFilter, PartOfAnEntryIsNoMatch) {
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("8080", nullptr, "80"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("80", nullptr, "8080"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter("180", nullptr, "80"));
}

TEST(PortFilter, EmptyEntriesAreSkipped) {
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter(",,80,,443,,", nullptr, "443"));
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter(",,80,,", nullptr, ""));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter(nullptr, ",,", ""));
}

TEST(PortFilter, ListOfCommasIsSetAndHoldsNothing) {
	EXPECT_EQ(KAQ_PORT_NOT_INCLUDED, kaq_port_filter(",", nullptr, "80"));
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter(nullptr, ",", "80"));
}

TEST(PortFilter, CommandLinePortNeedsAZeroInTheList) {
	EXPECT_EQ(KAQ_PORT_PASS, kaq_port_filter("80,0", nullptr, "0"));
	EXPECT_EQ(KAQ_PORT_EXCLUDED, kaq_port_filter(nullptr, "0", "0"));
}

TEST(PortText, StaticPortComesFirst) {
	EXPECT_EQ("1234", chosen("1234", "443", "8080"));
}

TEST(PortText, ForwardedPortWinsOverTheLocalOne) {
	EXPECT_EQ("443", chosen(nullptr, "443", "8080"));
	EXPECT_EQ("443", chosen("", "443", "8080"));
}

TEST(PortText, LocalPortComesLast) {
	EXPECT_EQ("8080", chosen(nullptr, nullptr, "8080"));
	EXPECT_EQ("8080", chosen("", "", "8080"));
}

TEST(PortText, NoneGivesZero) {
	EXPECT_EQ("0", chosen(nullptr, nullptr, nullptr));
	EXPECT_EQ("0", chosen("", "", ""));
}

TEST(PortText, NineCharactersAreTakenAndTenAreAbsent) {
	EXPECT_EQ("123456789", chosen("123456789", "443", "8080"));
	EXPECT_EQ("443", chosen("1234567890", "443", "8080"));
	EXPECT_EQ("123456789", chosen(nullptr, "123456789", "8080"));
	EXPECT_EQ("8080", chosen(nullptr, "1234567890", "8080"));
	EXPECT_EQ("123456789", chosen(nullptr, nullptr, "123456789"));
	EXPECT_EQ("0", chosen(nullptr, nullptr, "1234567890"));
	EXPECT_EQ("0", chosen(std::string(5000, '1').c_str(), std::string(100, '2').c_str(), nullptr));
}

TEST(PortText, TextThatIsNoNumberIsTakenIsMeant) {
	EXPECT_EQ("web", chosen("web", "443", "8080"));
}
