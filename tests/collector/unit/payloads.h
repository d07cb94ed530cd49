/* Payloads as the extension writes them. */
#pragma once

#include <string>

/* A document with these members and spans; the sections come in the extension's order. */
inline std::string payload(const std::string &info, const std::string &spans,
						   const std::string &measures = "") {
	return R"({"apm":{"data":true,"application_info":{"application_type":"PHP",)"
		   R"("application_name":"Shop","application_group":"front","instance_id":"i1"},)"
		   R"("transaction_info":{)" +
		   info + R"(},"method_info":{"span_info":[)" + spans + R"(]},"app_parameters":{)" +
		   measures + "}}}";
}

inline const std::string kRoot =
	R"({"st":1000,"et":1250,"mo":0,"pr":1,"fn":"main","cn":"PHP","si":"00000000000000aa"})";
