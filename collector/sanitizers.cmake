# What the collector and its tests are built with. The check of virtual tables needs descriptors, which
# a test leaves none of.
if(KAQ_COLLECTOR_SANITIZE STREQUAL "thread")
	add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
	add_link_options(-fsanitize=thread)
elseif(KAQ_COLLECTOR_SANITIZE)
	add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr
		-fno-sanitize-recover=all -fno-omit-frame-pointer)
	add_link_options(-fsanitize=address,undefined)
endif()
