dnl The extension is built as usual, in this directory: phpize && ./configure && make && make test

dnl PHP 7.0's configure tests "cc -c -o" and then removes everything named "core", our directory
dnl too. A cached answer keeps it from testing. This has to run before the body of configure, hence
dnl the diversion.
m4_divert_text([INIT_PREPARE], [
for kaq_cc in cc gcc clang "$CC"; do
  kaq_cc=`echo "$kaq_cc" | sed 's/ .*//;s/@<:@^a-zA-Z0-9_@:>@/_/g;s/^@<:@0-9@:>@/_/'`
  test -z "$kaq_cc" || eval "ac_cv_prog_cc_${kaq_cc}_c_o=yes"
done
])

PHP_ARG_ENABLE([kaq],
  [whether to enable the kaq application performance monitor],
  [AS_HELP_STRING([--enable-kaq], [Enable the kaq application performance monitor])],
  [yes])

PHP_ARG_ENABLE([kaq-werror],
  [whether warnings in kaq are errors],
  [AS_HELP_STRING([--enable-kaq-werror], [Treat warnings in kaq as errors])],
  [no], [no])

PHP_ARG_ENABLE([kaq-debug],
  [whether kaq checks its preconditions],
  [AS_HELP_STRING([--enable-kaq-debug], [Build kaq with its preconditions checked])],
  [no], [no])

if test "$PHP_KAQ" != "no"; then
  PHP_REQUIRE_CXX()

  dnl The engine's headers come in as system headers: their warnings are not ours.
  kaq_system_includes=`$PHP_CONFIG --includes | sed 's/-I/-isystem /g'`
  kaq_flags="-std=gnu++17 -O2 -Wall -Wextra -fvisibility=hidden -fno-exceptions -fno-rtti"
  kaq_flags="$kaq_flags -DZEND_ENABLE_STATIC_TSRMLS_CACHE=1 -I@ext_srcdir@ $kaq_system_includes"
  if test "$PHP_KAQ_DEBUG" != "no"; then
    kaq_flags="$kaq_flags -DKAQ_DEBUG=1"
  fi
  if test "$PHP_KAQ_WERROR" != "no"; then
    kaq_flags="$kaq_flags -Werror"
  fi

  kaq_sources="util/engine_access.cpp util/engine_compat.cpp util/header_line.cpp util/kaq_aside.cpp \
    util/kaq_clock.cpp util/kaq_random.cpp util/kaq_strings.cpp util/kaq_util_functions.cpp util/known_keys.cpp \
    util/memory_limit.cpp util/swallowed_bailout.cpp \
    json/json_bounds.cpp json/json_escape.cpp json/json_members.cpp json/kaq_json.cpp \
    state/php_kaq.cpp \
    spans/kaq_cpu.cpp spans/kaq_execute.cpp spans/kaq_nodes.cpp spans/kaq_observe.cpp spans/kaq_prune.cpp \
    spans/kaq_setters.cpp spans/node_pool.cpp spans/open_spans.cpp \
    tracing/account_id.cpp tracing/distributedTrace.cpp tracing/kaq_headers.cpp \
    tracing/trace_context.cpp \
    diagnostics/crash_handler.cpp diagnostics/failures.cpp diagnostics/kaq_rum.cpp \
    diagnostics/stacktrace.cpp \
    calls/arguments.cpp calls/wrapped_call.cpp \
    curl/curl_headers.cpp curl/curl_options.cpp curl/curl_recipes.cpp curl/curl_stores.cpp \
    curl/curl_transfer.cpp curl/followed_functions.cpp \
    instrumentation/dispatch.cpp instrumentation/recipes.cpp instrumentation/registry.cpp \
    instrumentation/wrappers.cpp \
    wire/client.cpp wire/handshake.cpp wire/host_facts.cpp wire/kaq_base64.cpp \
    wire/payload.cpp wire/payload_spans.cpp wire/port_filter.cpp wire/receiver.cpp \
    wire/request_context.cpp wire/request_values.cpp wire/sender.cpp wire/transport.cpp \
    core/globals.cpp core/kaq.cpp core/module.cpp core/request.cpp core/script_functions.cpp \
    core/settings.cpp core/transaction_name.cpp"

  PHP_NEW_EXTENSION(kaq, $kaq_sources, $ext_shared,, $kaq_flags, cxx)
  PHP_ADD_BUILD_DIR([$ext_builddir/util])
  PHP_ADD_BUILD_DIR([$ext_builddir/json])
  PHP_ADD_BUILD_DIR([$ext_builddir/state])
  PHP_ADD_BUILD_DIR([$ext_builddir/spans])
  PHP_ADD_BUILD_DIR([$ext_builddir/tracing])
  PHP_ADD_BUILD_DIR([$ext_builddir/diagnostics])
  PHP_ADD_BUILD_DIR([$ext_builddir/calls])
  PHP_ADD_BUILD_DIR([$ext_builddir/curl])
  PHP_ADD_BUILD_DIR([$ext_builddir/instrumentation])
  PHP_ADD_BUILD_DIR([$ext_builddir/wire])
  PHP_ADD_BUILD_DIR([$ext_builddir/core])
  PHP_ADD_MAKEFILE_FRAGMENT
fi
