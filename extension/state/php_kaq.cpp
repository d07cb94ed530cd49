#include "state/php_kaq.h"

ZEND_DECLARE_MODULE_GLOBALS(kaq)
