dnl Stand-in drivers for the tests; never installed.

PHP_ARG_ENABLE([kaq-standins],
  [whether to build the stand-in drivers],
  [AS_HELP_STRING([--enable-kaq-standins], [Build the stand-in drivers of the tests])],
  [yes])

if test "$PHP_KAQ_STANDINS" != "no"; then
  PHP_REQUIRE_CXX()
  dnl The engine's headers come in as system headers: their warnings are not ours.
  kaq_standins_includes=`$PHP_CONFIG --includes | sed 's/-I/-isystem /g'`
  kaq_standins_flags="-std=gnu++17 -Wall -Wextra -fvisibility=hidden -fno-exceptions -fno-rtti"
  PHP_NEW_EXTENSION(kaq_standins, kaq_standins.cpp observer.cpp registration.cpp, $ext_shared,,
    $kaq_standins_flags -I@ext_srcdir@ $kaq_standins_includes, cxx)
fi
