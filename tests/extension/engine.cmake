# What builds of the extension into an engine's embed library have in common. From PHP_CONFIG and, if
# it is not empty, PHP_EMBED_LIBRARY it finds PHP_PREFIX, PHP_VERSION_TEXT and the library; it sets
# KAQ_ROOT and KAQ_SOURCES, and makes kaq_engine, a target with the headers of both.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)

set(PHP_CONFIG "php-config" CACHE STRING "php-config of the engine to embed")
set(PHP_EMBED_LIBRARY "" CACHE STRING "the engine's embed library; searched when empty")

function(php_config option result)
  execute_process(COMMAND ${PHP_CONFIG} --${option} OUTPUT_VARIABLE text
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

php_config(prefix PHP_PREFIX)
php_config(version PHP_VERSION_TEXT)
php_config(include-dir PHP_INCLUDE_DIR)
string(REGEX MATCH "^([0-9]+)\\.([0-9]+)" PHP_VERSION_SHORT "${PHP_VERSION_TEXT}")
string(REGEX MATCH "^[0-9]+" PHP_VERSION_MAJOR "${PHP_VERSION_TEXT}")

if(NOT PHP_EMBED_LIBRARY)
  foreach(name libphp${PHP_VERSION_SHORT}.so libphp${PHP_VERSION_MAJOR}.so libphp.so)
    if(NOT PHP_EMBED_LIBRARY AND EXISTS ${PHP_PREFIX}/lib/${name})
      set(PHP_EMBED_LIBRARY ${PHP_PREFIX}/lib/${name})
    endif()
  endforeach()
endif()
if(NOT PHP_EMBED_LIBRARY)
  message(FATAL_ERROR "no embed library below ${PHP_PREFIX}/lib")
endif()
get_filename_component(PHP_EMBED_DIRECTORY ${PHP_EMBED_LIBRARY} DIRECTORY)

# One list of sources: config.m4's.
get_filename_component(KAQ_ROOT ${CMAKE_CURRENT_LIST_DIR}/../../extension ABSOLUTE)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KAQ_ROOT}/config.m4)
file(READ ${KAQ_ROOT}/config.m4 KAQ_CONFIG_M4)
string(REGEX MATCH "kaq_sources=\"[^\"]*\"" KAQ_SOURCES_LINE "${KAQ_CONFIG_M4}")
string(REGEX MATCHALL "[A-Za-z0-9_/]+\\.cpp" KAQ_SOURCES "${KAQ_SOURCES_LINE}")
if(NOT KAQ_SOURCES)
  message(FATAL_ERROR "no source list in config.m4")
endif()
list(TRANSFORM KAQ_SOURCES PREPEND ${KAQ_ROOT}/)

add_library(kaq_engine INTERFACE)
target_include_directories(kaq_engine INTERFACE ${KAQ_ROOT})
foreach(directory "" /main /Zend /TSRM /ext /ext/date/lib)
  target_include_directories(kaq_engine SYSTEM INTERFACE ${PHP_INCLUDE_DIR}${directory})
endforeach()
target_compile_definitions(kaq_engine INTERFACE ZEND_ENABLE_STATIC_TSRMLS_CACHE=1)
target_compile_options(kaq_engine INTERFACE -Wall -Wextra -fvisibility=hidden)
