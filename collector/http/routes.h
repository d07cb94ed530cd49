/*
 * What is served where: health, logging in, the live feed, the pages, and the services of
 * query/service.h, which run on the server's workers. Called on the server's thread.
 */
#pragma once

#include <functional>
#include <string>

#include "http/http_server.h"
#include "http/login_codes.h"
#include "http/sessions.h"
#include "query/service.h"

namespace kaq {

/* Asks the doctor; called on the server's workers. */
struct DoctorRoutes {
	std::function<Answer()> show;
	/* Keeps a report that was made on this host. */
	std::function<Answer(const std::string &report)> keep;
};

class Routes {
public:
	/* REQUIRES: the context, the codes and the sessions outlive it. */
	Routes(ServiceContext &context, LoginCodes &codes, Sessions &sessions, DoctorRoutes doctor = {})
		: context_(context), codes_(codes), sessions_(sessions), doctor_(std::move(doctor)) {
	}

	HttpAnswer answer(const HttpRequest &request);

private:
	HttpAnswer log_in(const HttpRequest &request);
	HttpAnswer ask_doctor(const HttpRequest &request);
	HttpAnswer serve(const Service &service, const HttpRequest &request);

	ServiceContext &context_;
	LoginCodes &codes_;
	Sessions &sessions_;
	const DoctorRoutes doctor_;
};

} // namespace kaq
