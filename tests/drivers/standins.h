/*
 * Stand-in drivers: internal functions and classes of drivers' names, which record how they are
 * called and do what a test has planned. They are for engines where the driver is missing; with
 *     kaq_standins.take_over=1   those of a driver that is there are replaced too,
 *     kaq_standins.without=LIST  those named (lower case, comma separated) are not registered,
 *     kaq_standins.observe=1     calls of user functions are observed.
 */
#pragma once

#include "php.h"
#include "php_main.h"
#include "php_globals.h"
#include "zend_exceptions.h"

/* With kaq_standins.observe=1, and on an engine that has observers of calls: counts the calls of
 * user functions that are under way. */
void standin_observe(void);
zend_long standin_observed(void);

/* The handler of every stand-in. */
void standin_call(INTERNAL_FUNCTION_PARAMETERS);

/* Registers, at module startup, what the engine lacks. */
void standin_register_all(void);
void standin_unregister_all(void);

/* Adds, per name of the table: true if the engine would run the stand-in itself, false if somebody
 * else's handler stands before it. Names that the engine lacks are left out. */
void standin_list(zval *array);
