#include "instrumentation/wrappers.h"

#include "calls/arguments.h"
#include "instrumentation/recipes.h"
#include "instrumentation/wrapped_functions.h"
#include "state/php_kaq.h"

/* Whether the layouts of a recipe can be read. */
template <typename recipe> static constexpr bool kaq_has_readable_layouts(recipe) {
	return true;
}

static constexpr bool kaq_has_readable_layouts(kaq_query recipe) {
	return kaq_are_readable(recipe.layouts) && recipe.text < KAQ_LAYOUT_LENGTH;
}

static constexpr bool kaq_has_readable_layouts(kaq_connect recipe) {
	return kaq_are_readable(recipe.layouts);
}

static constexpr bool kaq_has_readable_layouts(kaq_dbname recipe) {
	return kaq_are_readable(recipe.layouts);
}

static constexpr bool kaq_has_readable_layouts(kaq_cql recipe) {
	return kaq_are_readable(recipe.layouts);
}

/* Per row: the slot of its record, the inner wrapper (what is recorded) and the outer wrapper (what
 * the engine calls). */
#define KAQ_DEFINE_WRAPPERS(id, key, group, component, class_name, name, external, ...)         \
	static_assert(kaq_has_readable_layouts(__VA_ARGS__), "layouts of " #id);                    \
	static kaq_internalfn_t *_kaq_outer_wrapper_global_##id;                                    \
	static void _kaq_inner_wrapper_function_##id(zend_execute_data *execute_data,               \
												 zval *return_value, kaq_internalfn_t *wraprec, \
												 kaq_node *node) {                              \
		const kaq_call call = {execute_data, return_value, wraprec->oldhandler, node,           \
							   &node->data.function_info};                                      \
		kaq_name_wrapped_call(call.fi, class_name, name, component, external);                  \
		kaq_set_function_priority(call.fi, PRIORITY_1);                                         \
		kaq_record(&call, __VA_ARGS__);                                                         \
	}                                                                                           \
	static void _kaq_outer_wrapper_function_##id(zend_execute_data *execute_data,               \
												 zval *return_value) {                          \
		kaq_instrument_delegate(_kaq_outer_wrapper_global_##id, execute_data, return_value);    \
	}

KAQ_WRAPPED_FUNCTIONS(KAQ_DEFINE_WRAPPERS)

/* The group's capture setting, as its place in the thread's record. */
static const size_t kaq_group_cassandra = offsetof(zend_kaq_globals, capture_cassandra);
static const size_t kaq_group_http = offsetof(zend_kaq_globals, capture_http);
static const size_t kaq_group_memcached = offsetof(zend_kaq_globals, capture_memcached);
static const size_t kaq_group_mssql = offsetof(zend_kaq_globals, capture_mssql);
static const size_t kaq_group_mysql = offsetof(zend_kaq_globals, capture_mysql);
static const size_t kaq_group_oracle = offsetof(zend_kaq_globals, capture_oracle);
static const size_t kaq_group_pdo = offsetof(zend_kaq_globals, capture_pdo);
static const size_t kaq_group_postgres = offsetof(zend_kaq_globals, capture_postgres);
static const size_t kaq_group_redis = offsetof(zend_kaq_globals, capture_redis);
static const size_t kaq_group_never = KAQ_NEVER;

#define KAQ_WRAPPER_ROW(id, key, group, component, class_name, name, external, ...)             \
	{key, kaq_group_##group, &_kaq_outer_wrapper_global_##id, _kaq_outer_wrapper_function_##id, \
	 _kaq_inner_wrapper_function_##id},

const kaq_wrapper kaq_wrappers[] = {KAQ_WRAPPED_FUNCTIONS(KAQ_WRAPPER_ROW)};

const size_t kaq_wrapper_count = sizeof kaq_wrappers / sizeof kaq_wrappers[0];
static_assert(sizeof kaq_wrappers / sizeof kaq_wrappers[0] >= 148, "the table has lost a row");

/* SYNONYM(identifier, look-up key, capture group, identifier of the row) */
#define KAQ_SYNONYMS(SYNONYM) SYNONYM(pdo_connect, "pdo::connect", pdo, pdo___construct)

#define KAQ_DEFINE_SYNONYM(id, key, group, row)                                              \
	static kaq_internalfn_t *_kaq_outer_wrapper_global_##id;                                 \
	static void _kaq_outer_wrapper_function_##id(zend_execute_data *execute_data,            \
												 zval *return_value) {                       \
		kaq_instrument_delegate(_kaq_outer_wrapper_global_##id, execute_data, return_value); \
	}

#define KAQ_SYNONYM_ROW(id, key, group, row)                                                    \
	{key, kaq_group_##group, &_kaq_outer_wrapper_global_##id, _kaq_outer_wrapper_function_##id, \
	 _kaq_inner_wrapper_function_##row},

KAQ_SYNONYMS(KAQ_DEFINE_SYNONYM)

const kaq_wrapper kaq_synonyms[] = {KAQ_SYNONYMS(KAQ_SYNONYM_ROW)};

const size_t kaq_synonym_count = sizeof kaq_synonyms / sizeof kaq_synonyms[0];
kaq_internalfn_t kaq_synonym_records[sizeof kaq_synonyms / sizeof kaq_synonyms[0]];
