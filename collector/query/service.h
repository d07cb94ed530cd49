/*
 * What the collector can be asked: one table of services, which its HTTP interface offers and which
 * the verbs call themselves where no collector runs. docs/openapi.yaml describes each.
 *
 * A service may take seconds; it is called on any thread, several at a time.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "store/store.h"

namespace kaq {

struct Question {
	std::map<std::string, std::string> parameters; /* decoded */
};

struct Answer {
	int status = 200;
	nlohmann::json body;
	std::string text; /* in the place of the body, where the answer is no JSON or is JSON already */
	std::string type = "application/json"; /* of the text */
	std::string file = {}; /* where browsers are to keep the text as a file: its name, in ASCII */
};

/* What services need; all of it outlives them, and its functions are called on any thread. */
struct ServiceContext {
	Store &store;
	std::function<int64_t()> clock; /* milliseconds since the Unix epoch */
	/* What the running collector says about itself, as a JSON object: its ports and counters; empty
	 * where none runs. */
	std::function<nlohmann::json()> daemon;
	/* The address that logs a browser in, once; empty where no collector runs. */
	std::function<std::string()> login_link;
	/* What the running collector tells programs that watch it; nothing while it ends. */
	std::function<std::optional<std::string>()> metrics = {};
	/* Monitors an application again, or all if it is empty, and returns what was resumed; empty
	 * where no collector runs. */
	std::function<nlohmann::json(const std::string &application)> resume = {};
	/* The places that requests are sent to, as a list; empty where no collector runs. */
	std::function<nlohmann::json()> destinations = {};
};

enum class Audience {
	kEverybody, /* who has the token */
	kLocal,     /* who reaches the Unix socket */
};

/* Before the name of a parameter that has to be there. */
constexpr char kRequired = '!';

struct Service {
	const char *method; /* "GET" for what reads, "POST" for what changes */
	const char *path;
	std::vector<const char *> parameters; /* that it takes */
	Answer (*answer)(ServiceContext &, const Question &);
	Audience audience = Audience::kEverybody;
};

/* All of them, each method and path once. */
const std::vector<Service> &services();

/* Null if there is none. */
const Service *find_service(const std::string &method, const std::string &path);

/*
 * The service's answer. What is wrong with the question becomes status 400 or 404, a store that
 * cannot be read 500, with {"error":{"message":...,"hint":...,"parameter":...}}; hint and parameter
 * are left out where there is nothing to say.
 */
Answer answer_of(const Service &service, ServiceContext &context, const Question &question);

/* Such an answer. */
Answer error_answer(int status, const std::string &message, const std::string &hint = "",
					const std::string &parameter = "");

/* With status 200. */
Answer json_answer(nlohmann::json body);

/* JSON as it is sent: on one line; broken UTF-8, which only file names can bring, is replaced. */
std::string text_of(const Answer &answer);

} // namespace kaq
