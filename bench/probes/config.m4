PHP_ARG_ENABLE([probe],
  [whether to enable the benchmark probe],
  [AS_HELP_STRING([--enable-probe], [Enable the benchmark probe])],
  [yes])

if test "$PHP_PROBE" != "no"; then
  PHP_REQUIRE_CXX()
  probe_flags="-std=gnu++17 -O2 -Wall -Wextra -fvisibility=hidden -fno-exceptions -fno-rtti"
  probe_flags="$probe_flags -I@ext_srcdir@ `$PHP_CONFIG --includes | sed 's/-I/-isystem /g'`"
  PHP_NEW_EXTENSION(probe, probe.cpp functions.cpp util/kaq_clock.cpp, $ext_shared,, $probe_flags, cxx)
  PHP_ADD_BUILD_DIR([$ext_builddir/util])
fi
