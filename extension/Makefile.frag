# What "make test" runs, unless TESTS names something else.
TESTS ?= $(top_srcdir)/../tests/extension/phpt
