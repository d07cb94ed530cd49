#include "model/document.h"

#include <gtest/gtest.h>

#include "model/payload_reader.h"
#include "payloads.h"

using kaq::PayloadReader;
using kaq::Transaction;

/* Every member that the extension may send. */
static const std::string kWhole = payload(
	R"("t_name":"\/cart \"x\"\\","normalised_tname":"\/c*","http_host":"shop.example",)"
	R"("http_query_str":"a=1","s_time":1000,"e_time":1300,"http_method_name":"POST","bytes_in":5,)"
	R"("bytes_out":6,"transaction_type":1,"thread_id":77,"httpcode":404,"cputime":12,)"
	R"("memalloc":2097152,"trace_id":"t1","session_id":"s1","http_headers":{"Host":"h","X":["a",""]},)"
	R"("http_input_params":{"q":"t\u0001","l":["x",{"k":5}]},"http_resp_headers":{"A":"b"},)"
	R"("custom_params":{"user":"anna"},"origin":{,"async":true,"flow":"f1"})",
	kRoot +
		R"(,{"st":1010,"et":1020,"fn":"PDO::query","cn":"PDO","ex":1,"ar":true,"if":1,"si":"bb",)"
		R"("psi":"00000000000000aa","qs":"SELECT 1","esc":200,"hn":"db1","pn":3306,"dn":"shop",)"
		R"("erqh":{"A":"1"},"ersh":{"B":"2\r\n"},"ei":[{"err_clz":"ERROR","filename":"\/a.php",)"
		R"("linenumber":7,"time":1015,"level":"Notice","str":"m"},{"err_clz":"E"}],)"
		R"("mst":[["Cart","add","\/C.php",42],["","main","",0]]})",
	R"("sum":{"items":3},"average":{"load":0.1},"data":true)");

TEST(Document, HoldsAllThatWasRead) {
	PayloadReader reader;
	auto first = reader.read_json(kWhole);
	ASSERT_TRUE(first);
	std::string document = to_document(*first);
	auto second = reader.read_json(document);
	ASSERT_TRUE(second) << document;
	EXPECT_EQ(document, to_document(*second));
	const Transaction &t = *second;
	EXPECT_EQ("/cart \"x\"\\", t.name);
	EXPECT_EQ("s1", t.session_id);
	EXPECT_TRUE(t.is_web && t.is_async);
	ASSERT_EQ(3u, t.request_headers.size());
	EXPECT_EQ("X[1]", t.request_headers[2].name);
	EXPECT_EQ("", t.request_headers[2].value);
	ASSERT_EQ(3u, t.parameters.size());
	EXPECT_EQ("t\1", t.parameters[0].value);
	EXPECT_EQ("l[1][k]", t.parameters[2].name);
	ASSERT_EQ(2u, t.spans.size());
	EXPECT_EQ("2\r\n", t.spans[1].received_headers.at(0).value);
	ASSERT_EQ(2u, t.spans[1].failures.size());
	ASSERT_EQ(2u, t.spans[1].stack.size());
	EXPECT_EQ(0, t.spans[1].parent);
	EXPECT_EQ(3.0, t.sums.at(0).value);
	EXPECT_EQ(0.1, t.averages.at(0).value);
}

TEST(Document, NeedsNothingButASpan) {
	Transaction t;
	t.spans.emplace_back();
	PayloadReader reader;
	auto read = reader.read_json(to_document(t));
	ASSERT_TRUE(read);
	EXPECT_EQ(to_document(t), to_document(*read));
}

TEST(Document, EscapesEveryByteThatNeedsItWhereverItStands) {
	PayloadReader reader;
	for (int byte = 1; byte < 0x80; byte++) {
		for (size_t length : {1, 7, 8, 9, 17}) {
			for (size_t at = 0; at < length; at++) {
				std::string text(length, 'x');
				text[at] = static_cast<char>(byte);
				Transaction t;
				t.spans.emplace_back();
				t.name = text;
				t.parameters.push_back({text, text});
				t.sums.push_back({text, 1.5});
				auto read = reader.read_json(to_document(t));
				ASSERT_TRUE(read) << byte << " at " << at << " of " << length;
				EXPECT_EQ(text, read->name);
			}
		}
	}
}

TEST(Document, LeavesCharactersOfSeveralBytesAsTheyAre) {
	Transaction t;
	t.spans.emplace_back();
	t.name = "\xE2\x82\xAC\xC3\xA4\xF0\x9F\x98\x80 and \xC2\x80\xC2\xA2\xC3\x9C";
	PayloadReader reader;
	auto read = reader.read_json(to_document(t));
	ASSERT_TRUE(read);
	EXPECT_EQ(t.name, read->name);
	EXPECT_NE(std::string::npos, to_document(t).find(t.name));
}
