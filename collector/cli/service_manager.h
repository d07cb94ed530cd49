/* Tells the service manager that started the program how it is; nothing where there is none. Any
 * thread. */
#pragma once

#include <string>

namespace kaq {

/* Everything is open. */
void tell_ready(const std::string &status);
/* The configuration is read again; tell_ready() ends that. */
void tell_reloading();
void tell_stopping();
void tell_status(const std::string &status);
/* The program does its work. At most once a second, where somebody wants to know. */
void tell_alive();

} // namespace kaq
