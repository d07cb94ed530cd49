# shellcheck shell=bash
# Build directories in the cache, which serve every checkout. Source log.sh first.

# kaq_forget_other_checkout BUILD: the cache serves every checkout, but CMake
# refuses a build directory that another one made.
kaq_forget_other_checkout() {
	if [[ -f $1/CMakeCache.txt ]] &&
		! grep -qE "^CMAKE_HOME_DIRECTORY:INTERNAL=$KAQ_ROOT(/|\$)" "$1/CMakeCache.txt"; then
		rm -rf "$1"
	fi
}
