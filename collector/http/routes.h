/*
 * What is served where: health, logging in, the live feed, the pages, and the services of
 * query/service.h, which run on the server's workers. Called on the server's thread.
 */
#pragma once

#include <string>

#include "http/http_server.h"
#include "http/login_codes.h"
#include "query/service.h"

namespace kaq {

class Routes {
public:
	/* REQUIRES: the context and the codes outlive it. */
	Routes(ServiceContext &context, LoginCodes &codes, std::string token)
		: context_(context), codes_(codes), token_(std::move(token)) {
	}

	HttpAnswer answer(const HttpRequest &request);

private:
	HttpAnswer log_in(const HttpRequest &request);
	HttpAnswer serve(const Service &service, const HttpRequest &request);

	ServiceContext &context_;
	LoginCodes &codes_;
	const std::string token_;
};

} // namespace kaq
