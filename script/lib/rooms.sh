# shellcheck shell=bash
# shellcheck disable=SC2034 # for those who source it
# The rooms of the extension and of the collector, lowest first: each includes headers of itself and of those before it.
# docs/architecture.md says why they stand in this order.

KAQ_ROOMS=(util json state spans tracing diagnostics calls curl instrumentation wire core)
KAQ_COLLECTOR_ROOMS=(util model analysis store ingest export query net http cli main)
